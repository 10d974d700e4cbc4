#pragma once

#include <opencv2/core.hpp>

#include <array>

/// Whether a picture shows enough for block matching to find a patch of it again.
namespace vexo {

/// Variance of the noise of a picture's grey values, grey levels^2, where it is least: the response to a mask that
/// neither brightness nor slopes move, mean square of blocks of 16 x 16 px, a tenth of which have less. It is that of
/// the rounding at least.
/// Source: Immerkaer, Fast noise variance estimation, Comput. Vis. Image Underst. 64 (1996) 300.
/// @param picture  CV_8U, as recorded
double picture_noise(const cv::Mat& picture);

/// Where the texture around a point cannot hold its disparity: with a noise of variance v, and horizontal slopes whose
/// mean square over 5 x 5 px is E, no estimate scatters by less than sqrt(2 v / (25 E)) px. Beyond 0.2 px, in either
/// picture, the match was made by what lies around, or by chance.
/// Source: the Cramer-Rao bound of a shift; Foerstner, in: Handbook of Computer Vision, Springer 1992.
/// @param rectified   CV_8U, pictures of camera 0 and 1
/// @param noise       their picture_noise()
/// @param disparity   CV_32F, px, NaN: no point
/// @return CV_8U, 255: a point with too little texture
cv::Mat lacks_texture(
    const std::array<cv::Mat, 2>& rectified, const std::array<double, 2>& noise, const cv::Mat& disparity);

} // namespace vexo
