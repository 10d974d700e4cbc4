#pragma once

#include "host/captures/frames.h"
#include "patterns/method.h"

#include <string>

namespace vexo {

/// Reads maps that another decoder made, in the order of the library's frame indices: black.png, white.png, then
/// period.png or period.tiff and phase.tiff (gray code + phase), or phase0.tiff to phase2.tiff (multi-period).
/// Phases are fractions of a period, CV_32F. Where the period is no number from 0 to 255 the phase becomes NaN.
/// Throws Failure that names the map that is missing or does not fit.
FrameSet read_decoded(const std::string& cam0, const std::string& cam1, Method method);

} // namespace vexo
