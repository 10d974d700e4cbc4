#pragma once

#include "host/cameras/hand_eye.h"

#include <cstddef>
#include <vector>

namespace vexo {

/// Poses of which all others fit without them, as where two photos were exchanged.
struct StrayPoses {
    std::vector<std::size_t> strays; ///< ascending; empty: none were found
    HandEyeResidual rms;             ///< of the others
};

/// Leaves out one pose after the other, each time the one without which the rest fits best, until the rest fits or a
/// quarter of the poses is gone. Of more than 40 poses none is looked for: it takes the cube of their number.
/// @param fits  the largest residuals of poses that fit, rms
StrayPoses find_stray_poses(const std::vector<HandEyePose>& poses, HandEyeSetup setup, const cv::Vec3d& board_point_mm,
    const HandEyeResidual& fits);

} // namespace vexo
