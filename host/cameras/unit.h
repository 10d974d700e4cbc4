#pragma once

#include <string>

namespace vexo {

/// The unit of a calibration's lengths, and with it of every point that is measured.
struct Unit {
    std::string name = "mm"; ///< "um", "mm", "cm", "m" or "in"
    double in_mm = 1.0;      ///< mm of one of it
    bool stated = false;     ///< false: nothing says it, and mm is assumed

    /// Decimals with which as fine a length is written as `decimals` show in mm.
    int decimals(int of_mm) const;
    /// A length in words: "160.00 mm".
    std::string length(double value, int decimals_of_mm) const;
};

/// The unit of that name. Throws Failure that begins with `where`, and lists those there are.
Unit unit_named(const std::string& name, const std::string& where);

} // namespace vexo
