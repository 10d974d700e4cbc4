#pragma once

#include "vexo/vexo.h"

#include <opencv2/core.hpp>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace vexo::app {

using StereoCameraPtr = Owned<iStereoCamera>;
using GeneratorPtr = Owned<iPointCloudGenerator>;

/// A calibrated camera as its YAML file has it: x_camera = R x_world + T.
struct CalibratedCamera {
    cv::Size size; ///< px; 0 x 0: the file does not tell
    cv::Matx33d K = cv::Matx33d::eye();
    cv::Mat D; ///< OpenCV's order; may be empty
    cv::Matx33d R = cv::Matx33d::eye();
    cv::Vec3d T;
};

/// Reads the camera of that name. Throws Failure.
CalibratedCamera read_camera(const std::string& path, const std::string& name);

/// Reads cameras "cam0" and "cam1" of one file, or of one each. Throws Failure.
std::array<CalibratedCamera, 2> read_cameras(const std::vector<std::string>& files);

/// What cv::stereoRectify says of a pair: the same that the library computes when it makes a stereo camera.
struct Rectification {
    cv::Matx33d rotation0; ///< x_rectified = rotation0 * x_raw, camera 0
    cv::Matx34d P0, P1;    ///< projections of the rectified cameras
    double baseline = 0.0; ///< distance of the optical centres
};
Rectification rectify(
    const std::array<CalibratedCamera, 2>& cameras, cv::Size input, double alpha, int flags, cv::Size output);

/// Rectified camera 0, found by asking the stereo camera for points:
/// X = (x - cx) Z / f, Y = (y - cy) Z / f, 1 / Z = slope * disparity + offset.
struct Geometry {
    double f = 0.0;      ///< px
    double cx = 0.0;     ///< px
    double cy = 0.0;     ///< px
    double slope = 0.0;  ///< 1 / (length * px)
    double offset = 0.0; ///< 1 / length

    double depth(double disparity) const { return 1.0 / (slope * disparity + offset); }
    double disparity(double depth) const { return (1.0 / depth - offset) / slope; }
};

/// Throws Failure when the points do not lie in rectified camera-0 axes.
Geometry probe_geometry(iStereoCamera& camera);

/// Opens one or two YAML files (both cameras in one, or one each) or the three files of an hmat set, for images
/// of param's input size. Throws Failure that says which file and why.
StereoCameraPtr open_stereo_camera(const std::vector<std::string>& files, const StereoCameraParam& param);

/// Rectifies an 8-bit grey image of the input size with camera `which`. Pixels without a source are 0.
cv::Mat rectified(iStereoCamera& camera, const cv::Mat& raw, int which);

} // namespace vexo::app
