#pragma once

#include "host/calibration/checks.h"

#include <string>
#include <vector>

namespace vexo {

/// What became of every picture of the views, before or without a calibration.
std::vector<std::string> view_lines(const BoardViews& views, const BoardFile& board);

/// The same, and how well each fits.
std::vector<std::string> view_lines(const Calibrated& c);

/// Answers and advice.
std::vector<std::string> finding_lines(const std::vector<Finding>& findings);

} // namespace vexo
