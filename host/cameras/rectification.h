#pragma once

#include "host/cameras/camera_file.h"
#include "vexo/stereo_camera.h"

#include <opencv2/core.hpp>

#include <array>

namespace vexo {

/// What cv::stereoRectify says of a pair: the same that the library computes when it makes a stereo camera.
struct Rectification {
    cv::Matx33d rotation0; ///< x_rectified = rotation0 * x_raw, camera 0
    cv::Matx33d rotation1; ///< the same of camera 1
    cv::Matx34d P0, P1;    ///< projections of the rectified cameras
    double baseline = 0.0; ///< distance of the optical centres
};

Rectification rectify(
    const std::array<CalibratedCamera, 2>& cameras, cv::Size input, double alpha, int flags, cv::Size output);

/// Rectifies an 8-bit grey image of the input size with camera `which`. Pixels without a source are 0.
cv::Mat rectified(iStereoCamera& camera, const cv::Mat& raw, int which);

/// Where the pixels of some rectified rows look in the raw picture: CV_32FC2, x and y, each `every`-th row; NaN
/// outside. For checks: exact to a twentieth of a pixel of a picture 1280 px wide, and much quicker than rectifying
/// many frames.
cv::Mat raw_positions(iStereoCamera& camera, cv::Size raw, int which, int every);

} // namespace vexo
