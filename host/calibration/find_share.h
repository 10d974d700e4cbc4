#pragma once

#include "host/calibration/calibrated.h"

namespace vexo {

/// Sets the covariance of the cameras, from the bundle, and what follows from it:
/// the share, its map, or a single camera's. Comes after the fits.
/// @param flags  CALIB_* of OpenCV that the cameras were found with
void find_share(int flags, Calibrated& c);

} // namespace vexo
