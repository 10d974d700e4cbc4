#pragma once

#include <opencv2/core.hpp>

#include <vector>

/// Pose of a camera to points of known place: OpenCV's solvers after the checks they lack. Shared by the camera
/// classes; PinHoleCamera::solvePnPRansac() documents arguments and results. K may carry the scale of a projection.
namespace vexo {

/// An intrinsic matrix with K(2, 2) = 1; one whose K(2, 2) is 0 as it is.
cv::Mat_<double> normalised(const cv::Mat_<double>& K);

bool pose_by_ransac(const std::vector<cv::Point3f>& object_points, const std::vector<cv::Point2f>& image_points,
    const cv::Mat_<double>& K, const cv::Mat_<double>& D, cv::Mat& rvec, cv::Mat& tvec) noexcept;

bool pose_by_least_squares(const std::vector<cv::Point3f>& object_points, const std::vector<cv::Point2f>& image_points,
    const cv::Mat_<double>& K, const cv::Mat_<double>& D, cv::Mat& rvec, cv::Mat& tvec) noexcept;

} // namespace vexo
