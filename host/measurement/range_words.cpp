#include "host/measurement/range_words.h"

#include "base/statistics.h"
#include "base/text.h"

namespace vexo {

std::string range_text(const Measured& m, double low, double high)
{
    const double a = m.geometry.depth(low), b = m.geometry.depth(high);
    // beyond infinity the depth is negative
    const auto text = [&m](double depth) {
        return depth > 0.0 && depth * m.unit.in_mm < 1e7 ? m.unit.length(depth, 0) : "infinity";
    };
    const bool rising = a > 0.0 && (b < 0.0 || a < b);
    return number(low, 0) + " ... " + number(high, 0) + " (depth " + text(rising ? a : b) + " ... "
        + text(rising ? b : a) + ")";
}

std::string measured_range(const Measured& m)
{
    const std::vector<double> ends = quantiles(m.any_disparity, { 0.01, 0.99 });
    return range_text(m, ends[0], ends[1]);
}

std::string limits_text(const Measured& m)
{
    const auto [low, high] = disparity_limits(m.record);
    return "[" + number(low, 0) + ", " + number(high, 0) + "]";
}

} // namespace vexo
