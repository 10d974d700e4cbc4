#pragma once

#include <string>

#include "base/on_step.h"
#include "sim/output.h"
#include "sim/pattern.h"
#include "sim/render.h"

namespace vexo {
namespace sim {

/// A simulated capture: what a host would have recorded, and what only the simulation knows.
///     cam0/frame00.png ...   8-bit frames of camera 0 in capture order; cam1/ likewise
///     cameras.yaml           both cameras, keys cam0_... and cam1_...; world frame = raw camera-0 axes
///     truth.tiff             float, depth of each raw camera-0 pixel, mm, NaN where nothing is
///     visible.png            255 where the pixel's point is seen by both cameras and lit by the lit frame: beyond
///                            the last column of multi-phase frames there is nothing to measure. Under flat light
///                            (block matching) everything is lit
///     visible1.png           the same of camera 1's pixels
///     capture.json           method, periods and unit; the exposure if the options say it in ms
///     scene.json             the scene's name, all options, the rig, and the balls of `spheres`
struct Capture {
    Files files;
    std::string scene_json;
    Truth truth;
};

/// How often make_capture() calls its `on_step`.
int capture_steps(const Pattern& pattern);

/// Renders a scene under the pattern that belongs to the options. Throws std::invalid_argument for options that
/// why_invalid() refuses, for frames to swap that there are not, and for an unknown scene; Stopped.
Capture make_capture(const std::string& scene, const RigOptions& options, const OnStep& on_step = {});

/// Under another pattern of the same method and projector.
Capture make_capture(
    const std::string& scene, const RigOptions& options, const Pattern& pattern, const OnStep& on_step = {});

/// Where a point of the scene, as it was before it was turned, lies in raw camera-0 axes: 4 x 4, mm.
cv::Matx44d cam0_from_scene(const Rig& rig);

/// capture.json: what is needed to measure the frames, without what only a simulation knows.
std::string manifest_text(const Pattern& pattern, double exposure_ms);

/// Both cameras as YAML text.
std::string cameras_yaml(const Rig& rig);

} // namespace sim
} // namespace vexo
