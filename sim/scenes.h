#pragma once

#include <array>
#include <string>
#include <vector>

#include "sim/rig.h"
#include "sim/scene.h"

namespace vexo {
namespace sim {

/// The two balls of the scene `spheres`, rig frame, mm.
struct Balls {
    std::array<cv::Vec3d, 2> centres;
    double diameter;
};

/// Names of the scenes that make_scene() builds.
const std::vector<std::string>& scene_names();

/// Whether a scene has nothing that a turntable could not turn.
bool stands_free(const std::string& name);

/// Builds a scene at the rig's working distance:
///     plane    a wall tilted by `tilt_deg`
///     sphere   a ball of 150 mm before a wall
///     steps    stairs of 20 mm going up and down again, before a wall
///     bust     a head with neck and shoulders, nothing behind it
///     spheres  two balls of 40 mm, 150 mm apart, lying on a plane tilted by `tilt_deg`
///     albedo   the bust in upright stripes, see stripe_albedo()
///     plate    the default calibration board, upright between three balls of 40 mm
/// For block matching all surfaces are painted with blotches, four camera pixels and more in size.
/// An unknown name gives an empty scene.
Scene make_scene(const std::string& name, const RigOptions& options);

/// Where a point of the scene as it was built lies after `turned_deg`: 4 x 4, rig frame from scene frame, both of which
/// have the rig's axes and origin.
cv::Matx44d turned(const RigOptions& options);

/// Where the balls of `spheres` lie.
Balls make_balls(const RigOptions& options);

/// The field of the bust, see Implicit: mm; x to the right, y down, z into the head, origin between the ears.
double bust_field(const cv::Vec3d& point) noexcept;

/// Albedo of the scene `albedo`, over the light that a white surface throws back: stripes of 24 mm from left to right,
/// 1/16, 1/4, 1, 4 and so on. No single exposure measures them all; 4 stands for a gloss that is brighter than white.
double stripe_albedo(const cv::Vec3d& point_mm) noexcept;

/// Box around the bust, same frame.
constexpr double bust_low[3] = { -130, -140, -110 };
constexpr double bust_high[3] = { 130, 155, 100 };
/// The scene's bust is that much larger, so that it fills the default rig's picture as a scanned object would.
constexpr double bust_scale = 1.2;

} // namespace sim
} // namespace vexo
