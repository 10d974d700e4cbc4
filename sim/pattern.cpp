#include "sim/pattern.h"

#include <algorithm>
#include <cmath>

namespace vexo {
namespace sim {

namespace {
constexpr double pi = 3.14159265358979323846;
constexpr int gray_bits = 7;
constexpr double fringe_mean = 127.5, fringe_amplitude = 120; // clear of 0 and 255, where projectors clip

std::vector<double> gray_plane(int columns, int period, int bit)
{
    std::vector<double> row(static_cast<std::size_t>(columns));
    for (int x = 0; x < columns; ++x) {
        const int number = x / period;
        row[static_cast<std::size_t>(x)] = ((number ^ (number >> 1)) >> bit & 1) != 0 ? 255 : 0;
    }
    return row;
}

/// A + B cos(2 pi (x + 0.5) / period + offset) at integer x, rounded to 8 bits.
std::vector<double> fringes(int columns, int period, double offset)
{
    std::vector<double> row(static_cast<std::size_t>(columns));
    for (int x = 0; x < columns; ++x)
        row[static_cast<std::size_t>(x)]
            = std::round(fringe_mean + fringe_amplitude * std::cos(2 * pi * (x + 0.5) / period + offset));
    return row;
}

/// Integral from -infinity to z of the normal distribution function: a unit edge at 0, blurred, then summed.
double blurred_ramp(double z, double sigma)
{
    const double s = z / sigma;
    const double density = std::exp(-0.5 * s * s) / std::sqrt(2 * pi);
    return z * 0.5 * std::erfc(-s / std::sqrt(2.0)) + sigma * density;
}
} // namespace

int Pattern::lit_columns() const noexcept
{
    const std::vector<double>& lit = frames[frames.size() > 1 ? 1 : 0];
    const auto last = std::find_if(lit.rbegin(), lit.rend(), [](double grey) { return grey > 0; });
    return static_cast<int>(lit.rend() - last);
}

Pattern pattern_of(const RigOptions& options)
{
    const int columns = options.projector_size.width;
    if (options.method == "multi-phase") return multi_phase_pattern(columns, options.periods);
    if (options.method == "sgbm") return flat_pattern(columns);
    return gray_phase_pattern(columns, options.fringe_period);
}

Pattern flat_pattern(int columns)
{
    return { "sgbm", { std::vector<double>(static_cast<std::size_t>(columns), 255.0) }, {} };
}

Pattern gray_phase_pattern(int columns, int period)
{
    Pattern pattern { "gray-phase", {}, { period } };
    pattern.frames.emplace_back(static_cast<std::size_t>(columns), 0.0);
    pattern.frames.emplace_back(static_cast<std::size_t>(columns), 255.0);
    for (int bit = gray_bits - 1; bit >= 0; --bit)
        pattern.frames.push_back(gray_plane(columns, period, bit));
    for (int k = 0; k < 4; ++k)
        pattern.frames.push_back(fringes(columns, period, -k * pi / 2));
    return pattern;
}

Pattern multi_phase_pattern(int columns, const std::vector<int>& periods)
{
    Pattern pattern { "multi-phase", {}, periods };
    pattern.frames.emplace_back(static_cast<std::size_t>(columns), 0.0);
    pattern.frames.emplace_back(static_cast<std::size_t>(columns), 255.0);
    for (const int period : periods)
        for (int s = 0; s < 4; ++s)
            pattern.frames.push_back(fringes(columns, period, pi + s * pi / 2)); // -cos(a) = cos(a + pi)
    for (std::vector<double>& row : pattern.frames)
        for (std::size_t x = multi_phase_columns; x < row.size(); ++x)
            row[x] = 0;
    return pattern;
}

ProjectedRow::ProjectedRow(const std::vector<double>& grey, double gamma, double defocus)
{
    const auto columns = static_cast<int>(grey.size());
    const int reach = static_cast<int>(std::ceil(8 * defocus)); // px; further from an edge the blur is over
    const int per_column = defocus > 0 ? 32 : 1;                // linear in between: less than 1e-4 of full light off
    _first = -reach;
    _per_column = per_column;

    // The light is a sum of steps; a step of height h at e adds h * ramp(u - e) to the integral at u.
    std::vector<double> step(static_cast<std::size_t>(columns) + 1);
    double before = 0;
    for (int c = 0; c <= columns; ++c) {
        const auto at = static_cast<std::size_t>(c);
        const double light = c < columns ? 255 * std::pow(std::clamp(grey[at] / 255, 0.0, 1.0), gamma) : 0;
        step[at] = light - before;
        before = light;
    }
    _table.resize(static_cast<std::size_t>(columns + 2 * reach) * static_cast<std::size_t>(per_column) + 1);
    double height = 0, sum = 0; // of the steps whose blur is over: light, and its integral at `done`
    int done = 0;
    for (std::size_t i = 0; i < _table.size(); ++i) {
        const double u = _first + static_cast<double>(i) / per_column;
        for (; done <= columns && done + reach <= u; ++done) {
            height += step[static_cast<std::size_t>(done)];
            sum -= step[static_cast<std::size_t>(done)] * done;
        }
        double value = height * u + sum;
        for (int e = done; e <= columns && e - reach < u; ++e)
            value += step[static_cast<std::size_t>(e)] * blurred_ramp(u - e, defocus);
        _table[i] = value;
    }
}

double ProjectedRow::_integral(double u) const noexcept
{
    const double at = std::clamp((u - _first) * _per_column, 0.0, static_cast<double>(_table.size() - 1));
    const auto i = std::min(static_cast<std::size_t>(at), _table.size() - 2);
    const double share = at - static_cast<double>(i);
    return _table[i] + share * (_table[i + 1] - _table[i]);
}

} // namespace sim
} // namespace vexo
