#pragma once

#include "camera/camera_distort.h"
#include "vexo/board.h"
#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace vexo {

/// One picture's markers by board position, (FLT_MAX, FLT_MAX) where there is none; empty: not recognised.
using View = std::vector<cv::Point2f>;

/// Fewest markers that a view, or a pair of views, must share with the board to be used.
constexpr int min_view_markers = 5;

/// Intrinsics of one camera from views of the board, as cv::calibrateCamera finds them in at most 30 steps.
/// Source: Zhang, IEEE PAMI 22 (2000) 1330.
///
/// @param camera    in, out: size, K and D; K and D are the start that the flags may ask for
/// @param param     flags go to OpenCV unchanged, except for CALIB_USE_INTRINSIC_GUESS: with a focal guess K starts
///                  with it and the image centre, without one the flag is cleared
/// @param views     those with fewer than 5 markers are skipped
/// @param per_view  out, may be null: reprojection error of every view, px; NaN for one that was skipped
/// @param rms       out, may be null: px
/// @return          false, and the camera unchanged, when no view can be used or the result is not finite
/// Throws cv::Exception for degenerate views and a negative focal guess; then, too, the camera is unchanged.
bool calib_intrinsic(DistortCamera& camera, CameraCalibParam& param, iCalibBoardRecognizer* recognizer,
    std::vector<View>& views, std::vector<double>* per_view, double* rms);

/// Pose of camera 1 to camera 0 from pairs of views, as cv::stereoCalibrate finds it in at most 30 steps; unless
/// the flags forbid it, it improves both cameras' K and D, too. Afterwards camera 0 has R = I, T = 0.
///
/// @param cameras    in, out: calibrated by calib_intrinsic()
/// @param views      of camera 0 and camera 1; pair k is the k-th of both. Pairs with fewer than 5 common markers
///                   are skipped
/// @param pair_used  out: one flag a pair
/// @param rms        out, may be null: px
/// @return           false, and the cameras unchanged, when no pair can be used or the result is not finite
/// Throws cv::Exception for degenerate views and for flags that why_invalid_for_pair() faults; then, too, the cameras
/// are unchanged.
bool calib_extrinsic(std::array<DistortCamera, 2>& cameras, iCalibBoardRecognizer* recognizer,
    const std::array<std::vector<View>, 2>& views, int flags, std::vector<bool>& pair_used, double* rms);

} // namespace vexo
