#pragma once

#include "base/on_step.h"
#include "host/calibration/board_file.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/find_hand_eye.h"
#include "host/cameras/robot_poses.h"
#include "host/verdict/finding.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

/// Poses of a robot with what a camera saw of the board there.
struct HandEyeViews {
    std::vector<HandEyeView> views; ///< of poses with a photo in which the board was found
    std::vector<Finding> findings;  ///< poses without a photo, photos without a pose, photos without a board
    int markers = 0;                ///< that were measured, of all views
    double rms_px = 0.0;            ///< of the markers' distances to where each board's pose puts them
};

/// Matches poses and photos, and finds the board in those photos; a step is a photo. A pose names its photo by the
/// file's name, with or without the ending, or by the last number in it.
/// @param photos  a folder of pictures, or a pattern
/// Throws Failure for two photos that a pose may mean, when half of the poses or fewer have a photo, and Stopped.
HandEyeViews see_hand_eye(const RobotPoseFile& poses, const std::string& photos, const CalibratedCamera& camera,
    const BoardFile& board, const OnStep& on_step = {});

/// The middle of the markers, mm in the board's frame.
cv::Vec3d middle_of(const BoardFile& board);

} // namespace vexo
