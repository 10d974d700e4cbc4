#pragma once

#include "host/measurement/measured.h"

namespace vexo {

/// Puts the points on the surface that their neighbours show, see smooth(), and gives them the sigma of that. Throws
/// Failure where points have no sigma.
void smooth_points(Measured& m);

} // namespace vexo
