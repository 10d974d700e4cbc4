#pragma once

#include "host/accuracy/acceptance.h"
#include "host/accuracy/compare.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

/// The figures, one line each.
std::vector<std::string> comparison_lines(const Json& figures);

/// The figures, what each means, and the findings.
std::vector<std::string> acceptance_lines(const Accepted& accepted);

/// The errors in false colours with their scale, BGR.
cv::Mat error_view(const Compared& compared);

} // namespace vexo
