#include "sim/pattern.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "patterns/fringes.h"

namespace vexo {
namespace sim {

namespace {
std::vector<PatternFrame> frames_of(const RigOptions& o)
{
    const int columns = o.projector_size.width;
    if (o.method == Method::multi_phase) return multi_phase_frames(columns, o.periods);
    if (o.method == Method::sgbm) return flat_frames(columns);
    return gray_phase_frames(columns, o.fringe_period);
}

/// Integral from -infinity to z of the normal distribution function: a unit edge at 0, blurred, then summed.
double blurred_ramp(double z, double sigma)
{
    const double s = z / sigma;
    const double density = std::exp(-0.5 * s * s) / std::sqrt(2 * CV_PI);
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
    if (const char* fault = why_invalid(options)) throw std::invalid_argument(fault);
    Pattern pattern { options.method, {}, {} };
    if (options.method == Method::gray_phase) pattern.periods = { options.fringe_period };
    if (options.method == Method::multi_phase) pattern.periods = options.periods;
    for (const PatternFrame& frame : frames_of(options))
        pattern.frames.emplace_back(frame.row.begin<uchar>(), frame.row.end<uchar>());
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
