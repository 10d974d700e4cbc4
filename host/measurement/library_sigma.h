#pragma once

#include "host/measurement/row_phases.h"

#include <opencv2/core.hpp>

#include <array>

namespace vexo {

/// How the library measured.
struct LibraryFit {
    int samples = 5;               ///< of its line: 3 or 5
    float coordinate_end = 128.0F; ///< the largest projector coordinate, in its unit
};

/// Standard deviation of the library's disparities, px, NaN where a sample of their line is not usable. At k, the
/// nearest column of camera 1, t px from it, with a line of slope m through N samples whose columns spread by Sxx:
///
///     sigma^2 = [G(u0) G(v0) V0 + G(v1) L V1] / m^2 + b^2 + (g^2 + kappa) / 12288 + t^2 v / (Sxx m)^2
///
/// V are variances of the coordinate, G what interpolation at the offset of the raw position leaves of them, L what the
/// line does. b is what the bend of five samples moves the line by, squared, without its own noise, and averaged over
/// 3 x 3 points. cv::remap rounds positions to 1/32 px, whose variance is 1/12288 px^2: fully in camera 0, g times
/// steeper than camera 1, and as the line averages it in camera 1, kappa. v is the variance of the line's sums in
/// single precision, whose terms are rounded to the last of 24 bits.
/// @param disparity  CV_32F, px, of the library; NaN: none
cv::Mat library_sigma(const std::array<RawPhases, 2>& raw, const RectifyingTables& tables, const cv::Mat& disparity,
    const LibraryFit& fit);

} // namespace vexo
