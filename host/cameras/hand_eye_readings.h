#pragma once

#include "host/cameras/hand_eye_view.h"

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// The robot's poses as they are read.
std::vector<HandEyePose> poses_of(const std::vector<HandEyeView>& views, const PoseReading& reading);

/// Root mean squares over the poses.
HandEyeResidual rms_of(const std::vector<HandEyeResidual>& residuals);
std::vector<HandEyeResidual> residuals_of(
    const std::vector<HandEyePose>& poses, const HandEye& solved, const cv::Vec3d& board_point_mm);

/// Another meaning of the same numbers.
struct OtherReading {
    PoseReading reading;
    HandEyeSetup setup;
    int shift = 0; ///< poses belong to the pictures so many places later
    HandEyeResidual rms;
    std::string words;  ///< "quaternions wxyz, mm, the gripper in the base; eye-in-hand"
    std::string advice; ///< with the options that say so
};

/// The meaning that fits best of all others; nothing where none can be solved. Poses inverted and the other setup are
/// the same equations: of both the setup is named, unless a setup was asked for.
std::optional<OtherReading> best_other_reading(
    const std::vector<HandEyeView>& views, const HandEyeRequest& request, HandEyeSetup tried);

} // namespace vexo
