#pragma once

#include "host/results/read_result.h"

#include <string>

namespace vexo {

/// Reads a result's folder, its lengths made mm, whatever its unit is. Throws Failure, also when it holds no points.
Result read_result_in_mm(const std::string& folder);

} // namespace vexo
