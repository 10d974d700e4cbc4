#pragma once

#include "host/measurement/measured.h"

#include <string>

/// Disparities in words.
namespace vexo {

/// A range, with the depths that belong to it.
std::string range_text(const Measured& measured, double low, double high);

/// What was measured without limits, from the 1 % to the 99 % quantile.
std::string measured_range(const Measured& measured);

/// The accepted ones: "[-112, 8]".
std::string limits_text(const Measured& measured);

} // namespace vexo
