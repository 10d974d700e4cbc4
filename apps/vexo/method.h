#pragma once

#include "vexo/records.h"

#include <array>
#include <string>
#include <utility>
#include <variant>
#include <vector>

/// The ways to measure, as the options and the files name them.
namespace vexo::app {

/// In the order of CreatePointCloudGenerator's selectors.
enum class Method { sgbm, gray_phase, multi_phase };

/// Parameters of one method; the index is CreatePointCloudGenerator's selector.
using MatchingRecord = std::variant<SGBMatchingParam, GrayPhaseMatchingParam, MultiPhaseMatchingParam>;

inline Method method_of(const MatchingRecord& record)
{
    return static_cast<Method>(record.index());
}

/// "sgbm", "gray-phase" or "multi-phase".
const char* name_of(Method method);
/// Pictures per camera.
std::size_t frame_count(Method method);
/// Index of the first of each four phase-shifted frames; empty for block matching.
std::vector<std::size_t> phase_sets(Method method);

/// A method, and in words what it was recognised by.
struct Choice {
    Method method = Method::gray_phase;
    std::string reason;
};

/// The method that is named, or else the one by which a capture was made: scene.json or patterns.json in
/// `folder` tell, or the number of pictures in `cam0` (with `decoded`: the names of the maps there).
/// Throws Failure when nothing tells.
Choice choose_method(const std::string& named, const std::string& folder, const std::string& cam0, bool decoded);

/// Fringe periods in projector px that scene.json or patterns.json in `folder` tell; empty: neither does.
std::vector<int> periods_told_in(const std::string& folder);

/// Lit-frame limits that the phase methods share; grey levels.
struct LightLimits {
    int min_contrast = 0;
    int max_white = 256;
    int min_white = 0;
};
LightLimits light_limits(const MatchingRecord& record);
/// Smallest and largest accepted disparity, px.
std::pair<double, double> disparity_limits(const MatchingRecord& record);
void set_disparity_limits(MatchingRecord& record, double low, double high);
/// Decoded maps instead of camera frames.
bool is_decoded(const MatchingRecord& record);

} // namespace vexo::app
