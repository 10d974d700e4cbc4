#pragma once

#include "host/cameras/rectifying_tables.h"
#include "host/measurement/raw_phases.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// One rectified row of a camera: its phases at the exact raw positions (u, v) after the pixel (x0, y0), bilinear
///
///     a + (1-v) u (b-a) + v ((1-u) (e-a) + u (g-a))          differences the shortest way
///
/// of the four wrapped phases around each, a b above, e g below. Rectification through cv::remap rounds positions to
/// 1/32 px instead, and 8-bit pictures their grey levels.
class RowPhases {
public:
    RowPhases(int cols, const std::vector<FringeSet>& sets);

    /// Fills every array for the columns of the row `y` of the table; the others stay as they are.
    void sample(const RawPhases& raw, const RectifyingTable& table, int y, cv::Range columns);

    std::vector<std::vector<float>> phases; ///< of each set, fringe periods
    std::vector<float> variance;            ///< of the coordinate, interpolated like a picture; NaN outside
    std::vector<float> usable;              ///< 1: the four raw pixels are there, lit and with fringes; 0
    std::vector<float> u, v;                ///< 0 to 1, px

private:
    std::vector<int> _index; ///< of the upper left of the four pixels
};

/// Share of the variance that linear interpolation at an offset of 0 to 1 px leaves, along one axis.
__attribute__((always_inline)) inline float kept_variance(float u) noexcept
{
    return 1.0F - 2.0F * u * (1.0F - u);
}

} // namespace vexo
