#pragma once

#include <opencv2/core.hpp>

#include <cmath>

/// What a curved surface moves a straight line by, taken off again.
namespace vexo {

/// The bend of a point's five samples, slope (j + c j^2), as a whole number that can be summed with others in any
/// order: its upper bits count the points.
constexpr int bend_count = 1 << 24;
constexpr float bend_unit = 1.0F / (1 << 20), largest_bend = 0.0625F; ///< 1/px

/// 0 where there is no bend, or where it is one of an edge.
__attribute__((always_inline)) inline int packed_bend(float c) noexcept
{
    const bool takes_part = (c >= -largest_bend) & (c <= largest_bend); // false of NaN
    return takes_part ? bend_count + static_cast<int>(c * (1.0F / bend_unit)) : 0;
}

/// A straight line through the five samples lies 2 c above them in the middle, so points are measured c (2 - t^2) px
/// too far to the left: the same way all over a ball, whose diameter suffers. A single point's c is mostly noise; the
/// mean of 7 x 7 is taken, where half of them or more have one.
/// @param bends      CV_32S, packed_bend() of each point that was read from five samples, else 0
/// @param samples    CV_8U, of each point; those of five are corrected
/// @param disparity  CV_32F, px
void correct_bend(const cv::Mat& bends, const cv::Mat& samples, cv::Mat& disparity);

} // namespace vexo
