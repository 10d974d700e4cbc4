#pragma once

#include "host/calibration/calibrated.h"
#include "host/reports/html.h"

namespace vexo {

/// What the calibration itself is off by, at three distances and over the picture.
Section share_section(const Calibrated& c);

} // namespace vexo
