#pragma once

#include "host/cameras/hand_eye.h"
#include "host/cameras/robot_poses.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <optional>
#include <string>

namespace vexo {

/// A line of the robot's file, and what the camera saw at that pose.
struct HandEyeView {
    std::string picture;
    RobotPoseRow row;
    HandEyePose pose; ///< base_from_gripper is set from the row
};

struct HandEyeRequest {
    PoseReading reading;
    std::optional<HandEyeSetup> setup; ///< nothing: the one that fits
    cv::Vec3d board_point_mm;          ///< on the board, whose errors are said; its middle
};

constexpr std::size_t fewest_hand_eye_views = 4; ///< three determine the camera, the fourth tests it

} // namespace vexo
