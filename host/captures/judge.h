#pragma once

#include "host/captures/order.h"
#include "host/captures/quality.h"
#include "host/verdict/finding.h"

#include <string>
#include <vector>

namespace vexo {

/// What the figures of a camera say. The limits stand with their reasons in the source.
///
/// spoils: "out-of-order", "shifted-frames", "blank-frame" and "equal-frames" (of frames that are needed),
/// "pattern-unseen", "under-exposed" and "out-of-focus" (of which hardly a pixel is left), "moving-scene",
/// "unsteady-light", "over-exposed"; worse: the last five when less of it is lost, "noisy", "non-linear"; note:
/// "blank-frame" (of a plane without use), "fringe-start", "gamma", "scatter".
/// @param exchange  as find_exchange() answers
/// @param names     of the frames' files
std::vector<Finding> judge(const CameraFigures& figures, const FringeMethod& method, int camera,
    const FrameOrder& exchange, const std::vector<std::string>& names);

} // namespace vexo
