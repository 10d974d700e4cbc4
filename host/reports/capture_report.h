#pragma once

#include "host/captures/check.h"
#include "host/files/json_file.h"
#include "host/files/output_folder.h"

#include <string>
#include <vector>

namespace vexo {

/// check.json.
Json capture_json(const Checked& checked);

/// Adds check.json, gamma_table.json where the gamma could be measured, and pictures of exposure, modulation and
/// residual.
void add_files(OutputFolder& out, const Checked& checked);

/// Figures and findings, one line each.
std::vector<std::string> capture_lines(const Checked& checked);

/// One line: what spoils the capture or makes it worse, each name once, and the first such finding in full.
std::string capture_verdict(const std::vector<Finding>& findings);

} // namespace vexo
