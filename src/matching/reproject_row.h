#pragma once

#include "base/cpu.h"

#include <opencv2/core.hpp>

#include <cstdint>
#include <cstring>

namespace vexo {

/// The invalid point, down to its bits: hosts compare them.
VEXO_INLINE cv::Point3_<float> nan_point() noexcept
{
    const uint32_t bits = 0x7FC00000U;
    float nan = 0.0F;
    std::memcpy(&nan, &bits, sizeof nan);
    return { nan, nan, nan };
}

/// Points of one row of disparities. @return how many are valid
///
///     (X, Y, Z, W)^T = H (column, row, disparity, 1)^T, the sums in the order ((h0 c + h1 r) + h2 d) + h3
///     point = (X, Y, Z) (1 / W);  NaN where the disparity is `invalid` or W is 0
int reproject_row(const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid,
    cv::Point3_<float>* points) noexcept;

} // namespace vexo
