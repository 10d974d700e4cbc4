#pragma once

#include "host/calibration/checks.h"
#include "host/files/output_folder.h"

#include <vector>

namespace vexo {

/// Adds the calibration's own files, the board, the report with its page, and how each recognition ended.
void add_files(OutputFolder& out, const Calibrated& c, const std::vector<Finding>& findings);

} // namespace vexo
