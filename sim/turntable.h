#pragma once

#include <cstddef>
#include <string>

#include "sim/rig.h"

namespace vexo {
namespace sim {

/// The options of one capture of a series around an object: the same rig and noise of its own.
/// @param index  of `views`, evenly spread over a full turn
RigOptions on_turntable(RigOptions options, std::size_t index, std::size_t views);

/// The axis about which the turntable turns, in raw camera-0 axes, mm; YAML:
///     axis_point, axis_direction    the turn is right-handed about the direction
///     step_deg                      from a view to the next
std::string turntable_yaml(const Rig& rig, double step_deg);

} // namespace sim
} // namespace vexo
