#pragma once

#include "host/accuracy/compare.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

/// The figures, one line each.
std::vector<std::string> comparison_lines(const Json& figures);

/// The errors in false colours with their scale, BGR.
cv::Mat error_view(const Compared& compared);

} // namespace vexo
