#pragma once

#include "base/on_step.h"
#include "host/cameras/stereo.h"
#include "host/captures/capture.h"
#include "host/measurement/measured.h"
#include "host/measurement/parameters.h"

namespace vexo {

/// Steps that measure() announces, at most.
constexpr int measure_steps = 4;

/// Measures a capture with a stereo camera of its frames' size. Changes neither; several threads may measure at once,
/// each with a stereo camera of its own. That nothing was measured is no failure: the cloud is empty then, and the
/// causes say why. Throws Failure for what cannot be done, and Stopped.
Measured measure(
    const Capture& capture, const Stereo& stereo, const MeasureRequest& request, const OnStep& on_step = {});

} // namespace vexo
