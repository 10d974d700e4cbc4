#pragma once

#include "host/calibration/checks.h"
#include "host/files/json_file.h"

#include <vector>

namespace vexo {

/// The figures of a calibration, for programs: report.json of its folder.
Json calibration_json(const Calibrated& c, const std::vector<Finding>& findings);

} // namespace vexo
