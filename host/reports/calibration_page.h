#pragma once

#include "host/calibration/checks.h"

#include <string>
#include <vector>

namespace vexo {

/// What a calibration is worth, for people: one page that needs no other file.
std::string calibration_html(const Calibrated& c, const std::vector<Finding>& findings);

} // namespace vexo
