#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo {

/// A calibrated camera as its YAML file has it: x_camera = R x_world + T.
struct CalibratedCamera {
    cv::Size size; ///< px; 0 x 0: the file does not tell
    cv::Matx33d K = cv::Matx33d::eye();
    cv::Mat D; ///< OpenCV's order; may be empty
    cv::Matx33d R = cv::Matx33d::eye();
    cv::Vec3d T;
};

/// Reads a matrix of rows x cols finite numbers as double; false, and `out` kept, when it is absent or something else.
/// OpenCV's exceptions pass.
bool read_matrix(const cv::FileStorage& file, const std::string& key, int rows, int cols, cv::Mat& out);

/// Whether a file has keys of a camera of that name.
bool has_camera(const std::string& path, const std::string& name);

/// Reads the camera of that name. Throws Failure.
CalibratedCamera read_camera(const std::string& path, const std::string& name);

/// Reads cameras "cam0" and "cam1" of one file, or of one each. Throws Failure.
std::array<CalibratedCamera, 2> read_cameras(const std::vector<std::string>& files);

} // namespace vexo
