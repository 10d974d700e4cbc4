#pragma once

#include "host/calibration/calibrated.h"

namespace vexo {

/// Sets the covariance of the cameras, from the bundle and from where the markers were seen, and what follows from it:
/// the share, its map, or a single camera's. Comes after the fits.
void find_share(Calibrated& c);

} // namespace vexo
