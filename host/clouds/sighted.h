#pragma once

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

/// Measured points that say how far off they may be, and what fits of bodies to them have in common.
namespace vexo {

/// A point as a camera sees it. An error e of its depth moves it along its line of sight, by e (x/z, y/z, 1).
struct Sighted {
    cv::Vec3d point; ///< mm, axes of the rectified camera, which stands at the origin
    double sigma
        = 1.0;       ///< standard deviation of the depth by the noise alone, mm; where none is known any measure of it
    cv::Point pixel; ///< of the rectified picture
};

/// Standard deviation of the point along a direction of unit length.
inline double sigma_along(const Sighted& s, const cv::Vec3d& direction)
{
    return s.sigma * std::abs(direction.dot(s.point)) / s.point[2];
}

/// Beyond so many standard deviations a point is none of the body: an outlier.
constexpr double outlier_sigmas = 6.0;

/// Where outliers of residuals begin, in sigmas: at six, but where the points scatter more than sigma says, by as much
/// more. The scatter is taken from the median, which strays do not move.
/// @param residuals  over sigma, absolute; must hold one
inline double outlier_limit(std::vector<double> residuals, bool sigma_known)
{
    constexpr double of_median = 1.4826; // a normal distribution's standard deviation over its median deviation
    const auto middle = residuals.begin() + static_cast<std::ptrdiff_t>(residuals.size() / 2);
    std::nth_element(residuals.begin(), middle, residuals.end());
    return outlier_sigmas * std::max(of_median * *middle, sigma_known ? 1.0 : 1e-12);
}

} // namespace vexo
