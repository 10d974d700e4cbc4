#pragma once

#include "host/captures/noise.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <vector>

/// The phases of recorded fringes, pixel by pixel, with their variances: what points are refined from.
namespace vexo {

/// Four frames of one period, and what a period's phase counts in the projector coordinate, which is the sum of the
/// weighted phases.
struct FringeSet {
    std::size_t first = 0; ///< index of the first frame
    float weight = 1.0F;   ///< units of the coordinate a period; negative of frames that step the other way
};

/// Phases and coordinates of one camera's raw picture.
struct RawPhases {
    std::vector<FringeSet> sets;
    std::vector<cv::Mat> phases; ///< CV_32F, of each set, fringe periods, -0.5 to 0.5
    cv::Mat variance;            ///< CV_32F, of the coordinate, unit^2; negative: not lit, or without fringes
};

/// 1 / (2 pi), and the arctangent of 0 to 1 over its argument, a polynomial of its square, highest power first; off by
/// at most 2e-8. Source: Abramowitz, Stegun, Handbook of mathematical functions (1964), 4.4.49.
constexpr float turns_of_radian = 0.15915494F;
constexpr float turns_polynomial[8] = { 0.0028662257F, -0.0161657367F, 0.0429096138F, -0.0752896400F, 0.1065626393F,
    -0.1420889944F, 0.1999355085F, -0.3333314528F }; ///< but for the 1 of the lowest power

/// Angle of (cosine, sine) over 2 pi, -0.5 to 0.5; 0 of (0, 0). Differs from atan2 by at most 4e-8 turns where both are
/// whole numbers up to 255, most of it the rounding of single precision.
__attribute__((always_inline)) inline float turns(float sine, float cosine) noexcept
{
    const float y = sine < 0.0F ? -sine : sine, x = cosine < 0.0F ? -cosine : cosine;
    const float low = x < y ? x : y, high = x < y ? y : x;
    const float q = low / (high < 1.0F ? 1.0F : high), s = q * q;
    float sum = turns_polynomial[0];
    for (int i = 1; i < 8; ++i)
        sum = sum * s + turns_polynomial[i];
    const float octant = (q + q * s * sum) * turns_of_radian;
    const float quarter = x < y ? 0.25F - octant : octant;
    const float half = cosine < 0.0F ? 0.5F - quarter : quarter;
    return sine < 0.0F ? -half : half;
}

/// Difference of two phases, as the shortest way: -0.5 to 0.5 periods. Adding and taking off 1.5 * 2^23 rounds to a
/// whole number, to even, for anything below 2^22.
__attribute__((always_inline)) inline float shortest(float difference) noexcept
{
    constexpr float shift = 12582912.0F;
    return difference - ((difference + shift) - shift);
}

/// Phases and variances of the raw pixels. A grey noise s gives the phase the variance s^2 / (2 B^2) rad^2 at
/// modulation B, exactly, as S = I1 - I3 and C = I2 - I0 have the variance 2 s^2 each; s^2 is the noise model's, or r^2
/// where one of the frames is clipped and the residual r says that more is wrong. Source: Surrel, Design of algorithms
/// for phase measurements, Applied Optics 35 (1996) 51.
/// @param frames  of one camera, as recorded
/// @param mask    CV_8U, 255: lit, and with fringes
RawPhases raw_phases(const std::vector<cv::Mat>& frames, const std::vector<FringeSet>& sets, const NoiseModel& noise,
    const cv::Mat& mask);

} // namespace vexo
