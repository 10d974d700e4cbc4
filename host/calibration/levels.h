#pragma once

#include "base/text.h"
#include "host/verdict/finding.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

/// How figures become weights and words, the same in all checks of a calibration.
namespace vexo {

inline Weight level(double value, double good, double poor)
{
    if (!std::isfinite(value)) return Weight::unknown;
    return value <= good ? Weight::good : value <= poor ? Weight::worse : Weight::spoils;
}

/// "0.061 and 0.058 px".
inline std::string each(const std::vector<double>& values, int decimals, const std::string& unit)
{
    std::string text;
    for (std::size_t i = 0; i < values.size(); ++i)
        text += (i == 0 ? "" : " and ") + number(values[i], decimals);
    return text + unit;
}

/// Of the finite values, none of which is below -1; -1 when there is none.
inline double largest_of(const std::vector<double>& values)
{
    double most = -1;
    for (const double v : values)
        if (std::isfinite(v)) most = std::max(most, v);
    return most;
}

} // namespace vexo
