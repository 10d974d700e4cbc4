#pragma once

#include "calib/Calibrator.h"
#include "camera/stereo_camera.h"
#include "vexo/board.h"

#include <opencv2/core.hpp>

#include <array>

namespace vexo {

/// Pose of a board seen by a rectified pair.
///
/// The marker centres are undistorted and rectified; cv::solvePnP on camera 0 gives the start, and
/// Levenberg-Marquardt the pose with the least squared reprojection error in both rectified images.
///
/// @param cameras   the raw cameras
/// @param stereo    rectified from them, in rectified camera 0's frame
/// @param views     markers in both raw pictures of one moment; each needs 5 of its own
/// @param rect0_from_board  out: 4x4 board -> rectified camera 0, only on success
bool board_pose_in_rectified(const std::array<DistortCamera, 2>& cameras, const StereoCamera& stereo,
    iCalibBoardRecognizer& recognizer, const std::array<View, 2>& views, cv::Mat_<double>& rect0_from_board);

/// 4x4 matrix of a Rodrigues vector and a translation.
cv::Mat_<double> rigid_matrix(const cv::Mat& rvec, const cv::Mat& tvec);

} // namespace vexo
