#pragma once

#include "host/captures/quality.h"
#include "host/verdict/finding.h"

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace vexo {

/// What the figures of a camera say. The limits stand with their reasons in the source.
///
/// spoils: "out-of-order", "pattern-unseen", "moving-scene", "unsteady-light"; worse: "over-exposed" (spoils above one
/// half), "under-exposed", "noisy", "non-linear"; note: "blank-frame", "gamma".
/// @param exchange  as find_exchange() answers
/// @param names     of the frames' files
std::vector<Finding> judge(const CameraFigures& figures, const FringeMethod& method, int camera,
    const std::array<std::size_t, 2>& exchange, const std::vector<std::string>& names);

} // namespace vexo
