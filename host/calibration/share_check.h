#pragma once

#include "host/calibration/calibrated.h"
#include "host/verdict/finding.h"

namespace vexo {

/// How far points will be off by the calibration alone, in mm, against the noise of a usual scan.
Finding check_share(const Calibrated& c);

} // namespace vexo
