#pragma once

#include "host/results/read_result.h"

#include <opencv2/core.hpp>

#include <string>

namespace vexo {

/// Axes that points are given in.
struct Frame {
    cv::Matx44d from_camera = cv::Matx44d::eye(); ///< of points in rectified camera-0 axes; shift in the result's unit
    std::string words = "rectified camera 0: x right, y down, z forward";
};

/// The frame of the board that was calibrated with: boardRT.yaml beside the files of the calibration. Throws Failure
/// when that is not the calibration the result was measured with, or rectifies otherwise.
/// @param calibration  folder; empty: that which the report names
Frame frame_of_board(const Result& result, const std::string& calibration);

/// The frame of a file as read_rigid() reads it; like boardRT.yaml it says where the frame stands in the camera's
/// axes.
Frame frame_of_file(const std::string& path);

} // namespace vexo
