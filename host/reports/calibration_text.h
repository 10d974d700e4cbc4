#pragma once

#include "host/calibration/checks.h"

#include <string>
#include <vector>

namespace vexo {

/// What became of every picture of the views, before or without a calibration.
std::vector<std::string> view_lines(const BoardViews& views, const BoardFile& board);

/// The same, and how well each fits.
std::vector<std::string> view_lines(const Calibrated& c);

/// What refinement did, "9120 markers measured by their grey values, to 0.004 px a coordinate; left out: none; 2.1 s".
std::string refinement_line(const Refinement& refinement);

/// Answers and advice.
std::vector<std::string> finding_lines(const std::vector<Finding>& findings);

} // namespace vexo
