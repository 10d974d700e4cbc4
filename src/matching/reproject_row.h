#pragma once

#include <opencv2/core.hpp>

namespace vexo {

/// Points of one row of disparities. @return how many are valid
///
///     (X, Y, Z, W)^T = H (column, row, disparity, 1)^T, the sums in the order ((h0 c + h1 r) + h2 d) + h3
///     point = (X, Y, Z) (1 / W);  NaN where the disparity is `invalid` or W is 0
int reproject_row(const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid,
    cv::Point3_<float>* points) noexcept;

} // namespace vexo
