#pragma once

#include <opencv2/core.hpp>

/// What the surface shows to both cameras, made comparable along y.
namespace vexo {

constexpr int half_column = 15; ///< px above and below a pixel, over which texture is told from shading

/// Both cameras as camera 0 sees the measured surface: what lies beside it, or hides it, has no part in this.
struct RowPictures {
    cv::Mat left, right; ///< CV_32F, structure along y; 0 where there is none
    cv::Mat has;         ///< CV_32F, 1 where there is
    cv::Mat disparity;
    double least_texture = 0; ///< grey levels
};

/// Grey levels that a window's structure must have, standard deviation.
/// @param noise  of the frames as recorded, grey levels
double least_texture(double noise);

/// What is left of a picture without its slow run along y, which correlates with itself at any shift, and with less
/// noise.
/// @param picture   CV_8U
/// @param measured  CV_32F, 1 or 0: only such pixels have a part
cv::Mat structure_along_y(const cv::Mat& picture, const cv::Mat& measured);

/// @param left, right  CV_8U, rectified
/// @param disparity    CV_32F, of that size, px, NaN where nothing was measured
RowPictures row_pictures(const cv::Mat& left, const cv::Mat& right, const cv::Mat& disparity, double noise);

} // namespace vexo
