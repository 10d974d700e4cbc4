#include "host/cameras/unit.h"

#include "base/failure.h"
#include "base/text.h"

#include <algorithm>
#include <cmath>

namespace vexo {

int Unit::decimals(int of_mm) const
{
    return std::max(0, of_mm + static_cast<int>(std::ceil(std::log10(in_mm))));
}

std::string Unit::length(double value, int decimals_of_mm) const
{
    return number(value, decimals(decimals_of_mm)) + " " + name;
}

Unit unit_named(const std::string& name, const std::string& where)
{
    const Unit units[]
        = { { "um", 1e-3, true }, { "mm", 1.0, true }, { "cm", 10.0, true }, { "m", 1e3, true }, { "in", 25.4, true } };
    for (const Unit& unit : units)
        if (unit.name == name) return unit;
    throw Failure(where + ": \"" + name + "\" is no unit of length here; write um, mm, cm, m or in");
}

} // namespace vexo
