#include "host/captures/positions.h"

#include "base/parallel.h"
#include "host/captures/fringe_steps.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

constexpr std::size_t first_fringe = 9; ///< of gray code + phase

/// Whether all of a pixel's fringes are seen.
bool seen(const std::vector<cv::Mat>& frames, Method method, int y, int x)
{
    if (frames[1].at<uchar>(y, x) - frames[0].at<uchar>(y, x) < least_contrast) return false;
    const std::vector<std::size_t> sets = phase_sets(method);
    return std::all_of(sets.begin(), sets.end(),
        [&](std::size_t first) { return FringeSteps(frames, first, y, x).modulation() >= least_modulation; });
}

double gray_position(const std::vector<cv::Mat>& frames, int y, int x)
{
    constexpr double seam = 0.15; // fringes; the code's edges are drawn and seen within less
    const double phase = FringeSteps(frames, first_fringe, y, x).phase();
    return phase < seam || phase > 1 - seam ? -1 : gray_code(frames, y, x) + phase;
}

} // namespace

int gray_code(const std::vector<cv::Mat>& frames, int y, int x)
{
    int code = 0, bit = 0;
    for (std::size_t k = 2; k < first_fringe; ++k) {
        bit ^= code_bit(frames, k, y, x) ? 1 : 0;
        code = 2 * code + bit;
    }
    return code;
}

double multi_position(const std::vector<cv::Mat>& frames, const std::vector<int>& periods, int y, int x)
{
    constexpr double tolerance = 0.35; // px; chance agreement of some fringe is then still about one in two
    constexpr int columns = 912;
    std::array<double, 3> within {};
    for (std::size_t f = 0; f < 3; ++f) {
        const FringeSteps s(frames, 2 + 4 * f, y, x);
        const double angle = std::atan2(s.i3 - s.i1, s.i0 - s.i2) + pi - pi / periods[f];
        within[f] = periods[f] * angle / (2 * pi);
    }
    double best = -1, least = tolerance;
    for (int start = 0; start < columns; start += periods[0]) {
        double worst = 0;
        for (std::size_t f = 1; f < 3; ++f) {
            const double apart = (start + within[0] - within[f]) / periods[f];
            worst = std::max(worst, std::abs(apart - std::round(apart)) * periods[f]);
        }
        if (worst >= least) continue;
        least = worst;
        best = start + within[0];
    }
    return best;
}

cv::Mat projector_positions(const std::vector<cv::Mat>& frames, const FringeMethod& method, int every)
{
    cv::Mat positions(frames[0].size(), CV_32F, cv::Scalar(std::nan("")));
    in_parallel(static_cast<std::size_t>(positions.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < positions.cols; x += every) {
            if (!seen(frames, method.method, y, x)) continue;
            const double at
                = method.multi() ? multi_position(frames, method.periods, y, x) : gray_position(frames, y, x);
            if (at >= 0) positions.at<float>(y, x) = static_cast<float>(at);
        }
    });
    return positions;
}

} // namespace vexo
