#pragma once

#include "host/cameras/camera_file.h"
#include "host/files/json_file.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

/// What was really there, in raw camera 0.
struct Truth {
    CalibratedCamera camera0, camera1;
    cv::Mat depth;    ///< CV_32F, NaN where nothing is
    cv::Mat visible;  ///< CV_8U, 255: lit, and seen by both cameras
    cv::Mat visible1; ///< the same of camera 1's pixels
    Json scene;       ///< scene.json
    std::string scene_path;
};

/// Reads what vexo simulate wrote beside the frames. Throws Failure.
Truth read_truth(const std::string& folder);

/// Raw pixels of points through the distorted model; x_camera = R x + T.
std::vector<cv::Point2d> project(const std::vector<cv::Point3d>& points, const CalibratedCamera& camera,
    const cv::Matx33d& R = cv::Matx33d::eye(), const cv::Vec3d& T = cv::Vec3d());

/// Depth of the truth at a raw pixel: bilinear between four neighbours of one surface, else the nearest
/// pixel; NaN where nothing is.
double depth_at(const cv::Mat& depth, const cv::Point2d& pixel);

} // namespace vexo
