#pragma once

#include "host/cameras/calibration_share.h"
#include "host/cameras/camera_covariance.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// What the covariance of cameras does to what is measured with them, to first order. Each independent change of the
/// parameters moves the points that fixed pixels stand for; the squares of these moves add up.
namespace vexo {

/// Why points may be off by more than the covariance says, in a clause; empty: nothing says so.
std::string why_invalid(const CameraCovariance& covariance);

/// The share of a pair, over all that both cameras see, the corners too where no marker was:
/// what surfaces that face the rig, turned by ten degrees to either side, are off by in depth. Unknown where the
/// cameras see too little of it in common, or the covariance is not one of these cameras.
StatedShare share_of(const std::vector<CalibratedCamera>& pair, const CameraCovariance& covariance);

/// The share of the depth over the raw picture of camera 0, at the middle distance, mm; CV_32F, a cell of it per pixel,
/// NaN where camera 1 does not look. Empty where the share is unknown.
cv::Mat share_map(const std::vector<CalibratedCamera>& pair, const CameraCovariance& covariance);

/// The same of a single camera.
StatedDirection direction_share(const CalibratedCamera& camera, const CameraCovariance& covariance);

/// The share by the covariance beside camera files of a pair. Throws Failure for a damaged one.
StatedShare share_beside(const std::vector<std::string>& camera_files);

/// The same of a single camera's file.
StatedDirection direction_share_beside(const std::string& camera_file);

/// px, the disparity noise of a usual scan: of a white surface, gray code and phase by default, after refinement.
constexpr double usual_noise_px = 0.022;

/// The noise of a depth that this makes: of the rectified pair.
inline double usual_noise(double f, double baseline, double depth)
{
    return usual_noise_px * depth * depth / (f * baseline);
}

} // namespace vexo
