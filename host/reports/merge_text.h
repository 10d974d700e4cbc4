#pragma once

#include "host/files/json_file.h"

#include <string>
#include <vector>

namespace vexo {

/// A merged result for people, from its report: views, pairs, findings.
std::vector<std::string> merge_lines(const Json& report);

} // namespace vexo
