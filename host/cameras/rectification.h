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

} // namespace vexo
