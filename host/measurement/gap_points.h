#pragma once

#include "host/cameras/stereo.h"
#include "host/measurement/measured.h"
#include "host/measurement/raw_phases.h"

#include <array>

namespace vexo {

/// Measures narrow gaps of refined points again. Where the surface around promises a disparity, the fringes there are
/// looked at as around a match, and what they say is taken if it is within 0.5 px + 4 sigma of the promise: the point
/// is measured, not filled in. The decoder leaves such gaps where one raw pixel spoils two rectified ones.
void measure_gaps(const Stereo& stereo, const std::array<RawPhases, 2>& raw, Measured& measured);

} // namespace vexo
