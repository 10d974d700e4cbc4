#pragma once

#include "base/on_step.h"
#include "host/calibration/board_views.h"
#include "host/cameras/board_pose.h"
#include "host/cameras/camera_file.h"
#include "host/files/json_file.h"

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// A picture of the board, and where the board stands.
struct PosedPicture {
    BoardPicture picture; ///< with the board's axes in its drawing, when there is a pose
    std::optional<BoardPose> pose;
    std::optional<cv::Matx66d> covariance;      ///< of the pose's rvec and tvec, rad and mm
    std::optional<cv::Vec3d> position_sigma_mm; ///< standard deviation of the position of the board's origin
    double tilt_deg = 0.0;                      ///< between the board's normal and the line of sight
    std::string reason;                         ///< why there is no pose; empty when there is
};

/// Finds the board in pictures of a calibrated camera, and measures its markers by their grey values; a step is a
/// picture. Throws Failure for what is no picture, and Stopped.
std::vector<PosedPicture> find_poses(const std::vector<std::string>& images, const CalibratedCamera& camera,
    const BoardFile& board, const OnStep& on_step = {});

Json to_json(const PosedPicture& posed);

} // namespace vexo
