#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// The ways to measure: what options and files call them, and what the frames of each are.
namespace vexo {

/// In the order of CreatePointCloudGenerator's selectors.
enum class Method { sgbm, gray_phase, multi_phase };

constexpr std::array<Method, 3> all_methods { Method::sgbm, Method::gray_phase, Method::multi_phase };

/// "sgbm", "gray-phase" or "multi-phase".
const char* name_of(Method method);
/// The method that has exactly this name.
std::optional<Method> method_named(const std::string& name);
/// Frames of each camera.
std::size_t frame_count(Method method);
/// Index of the first of each four frames whose fringes are a quarter period apart; empty for block matching.
const std::vector<std::size_t>& phase_sets(Method method);
/// Fringe periods, projector px, that are projected when nobody names others; empty for block matching.
const std::vector<int>& default_periods(Method method);

} // namespace vexo
