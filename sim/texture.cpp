#include "sim/texture.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "sim/noise.h"

namespace vexo {
namespace sim {

namespace {
/// Evenly distributed in -1 to 1.
double value_at(std::int64_t x, std::int64_t y, std::int64_t z) noexcept
{
    const std::uint64_t cell = static_cast<std::uint64_t>(x) * 0x9E3779B97F4A7C15U
        ^ static_cast<std::uint64_t>(y) * 0xC2B2AE3D27D4EB4FU ^ static_cast<std::uint64_t>(z) * 0x165667B19E3779F9U;
    return static_cast<double>(mix_bits(cell) >> 11) * (2.0 / 9007199254740992.0) - 1;
}

double noise(const cv::Vec3d& p) noexcept
{
    std::int64_t cell[3];
    double share[3];
    for (int i = 0; i < 3; ++i) {
        const double whole = std::floor(p[i]), t = p[i] - whole;
        cell[i] = static_cast<std::int64_t>(whole);
        share[i] = t * t * t * (t * (6 * t - 15) + 10);
    }
    double sum = 0;
    for (int corner = 0; corner < 8; ++corner) {
        const int x = corner & 1, y = corner >> 1 & 1, z = corner >> 2;
        const double weight = (x != 0 ? share[0] : 1 - share[0]) * (y != 0 ? share[1] : 1 - share[1])
            * (z != 0 ? share[2] : 1 - share[2]);
        sum += weight * value_at(cell[0] + x, cell[1] + y, cell[2] + z);
    }
    return sum;
}
} // namespace

double blotchy_albedo(const cv::Vec3d& point_mm, double finest_mm) noexcept
{
    static const cv::Matx33d oblique(0.36, 0.48, -0.8, -0.8, 0.6, 0, 0.48, 0.64, 0.6);
    cv::Vec3d p = point_mm * (1 / finest_mm);
    double sum = 0;
    for (int octave = 0; octave < 3; ++octave) {
        p = oblique * p; // no octave's cells line up with the scene's axes, nor with another's
        sum += noise(p);
        p *= 0.5;
    }
    return 0.55 + 0.4 * std::clamp(sum, -1.0, 1.0);
}

} // namespace sim
} // namespace vexo
