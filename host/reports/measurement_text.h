#pragma once

#include "host/files/json_file.h"
#include "host/measurement/measure.h"

#include <string>
#include <vector>

namespace vexo {

/// The line for a measurement without a single point.
std::string why_nothing(const Measured& measured);

/// The line for a measurement that one of its findings spoils, with what to do; empty: none does.
std::string why_spoilt(const Measured& measured);

/// A measurement in a few lines.
/// @param report  as make_report() made it
std::vector<std::string> summary_lines(const Measured& measured, const Json& report);

} // namespace vexo
