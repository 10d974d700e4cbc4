#pragma once

#include "host/calibration/hand_eye_views.h"
#include "host/cameras/find_hand_eye.h"
#include "host/files/json_file.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// What is said of a camera on a robot, or before one.
struct HandEyeReport {
    FoundHandEye found;
    HandEyeViews seen;
    PoseReading reading;
    std::optional<cv::Matx33d> rectifying_rotation; ///< x_rectified = R x_raw of camera 0; nothing for a single camera
    std::vector<std::string> files;                 ///< poses, board and camera files

    std::vector<Finding> findings() const; ///< of all
};

/// For people: the result with its sigmas, the worst poses, findings.
std::vector<std::string> hand_eye_lines(const HandEyeReport& report);

Json hand_eye_json(const HandEyeReport& report);

/// The transforms alone, as cv::FileStorage reads them: 4 x 4 each, mm.
std::string hand_eye_yaml(const HandEyeReport& report);

} // namespace vexo
