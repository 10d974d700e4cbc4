#pragma once

#include "host/calibration/calibrated.h"
#include "host/verdict/finding.h"

#include <cstddef>
#include <string>
#include <vector>

namespace vexo {

/// Views with an error far above the others', of either camera.
std::vector<std::size_t> outlying_views(const Calibrated& c);

/// Answers to the questions whether the calibration is good, one finding each. The limits stand with their reasons in
/// the source.
std::vector<Finding> check_calibration(const Calibrated& c);

/// The question that a finding of check_calibration() answers.
std::string question_of(const Finding& finding);

/// "good", "usable", "not good enough".
std::string calibration_verdict(const std::vector<Finding>& findings);

} // namespace vexo
