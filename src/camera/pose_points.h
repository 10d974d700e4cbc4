#pragma once

#include <opencv2/core.hpp>

#include <vector>

/// Pose of a camera to points of known place: OpenCV's solvers behind the checks they lack. Shared by the camera
/// classes; PinHoleCamera::solvePnPRansac() documents arguments and results.
namespace vexo {

class PinHoleCamera;

bool pose_by_ransac(const std::vector<cv::Point3f>& object_points, const std::vector<cv::Point2f>& image_points,
    const PinHoleCamera& camera, const cv::Mat_<double>& D, cv::Mat& rvec, cv::Mat& tvec) noexcept;

bool pose_by_least_squares(const std::vector<cv::Point3f>& object_points, const std::vector<cv::Point2f>& image_points,
    const PinHoleCamera& camera, const cv::Mat_<double>& D, cv::Mat& rvec, cv::Mat& tvec) noexcept;

} // namespace vexo
