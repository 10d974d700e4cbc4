#pragma once

#include <opencv2/core.hpp>

namespace vexo {

/// What the surface around narrow gaps of a map promises there: where one or two pixels of a row are missing between
/// two that are not, the plane through the 5 x 5 pixels around. At least 15 of these must be there, four of them at
/// each side, all within 0.2 px + 4 sigma of it. A guess where to look, no measurement: the map cannot say whether a
/// gap is the decoder's or lies between two surfaces.
/// @param disparity  CV_32F, px, NaN: no point
/// @param sigma      CV_32F, standard deviation of the disparity, px; NaN: not known
/// @return CV_32F, px; NaN everywhere else
cv::Mat planes_over_gaps(const cv::Mat& disparity, const cv::Mat& sigma);

} // namespace vexo
