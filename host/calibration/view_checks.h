#pragma once

#include "host/calibration/calibrated.h"
#include "host/verdict/finding.h"

#include <vector>

namespace vexo {

/// What is to be said of the views themselves: how many, where in the pictures, how tilted, and whether they show the
/// board and the rig that they are said to show.
std::vector<Finding> check_views(const Calibrated& c);

} // namespace vexo
