#pragma once

#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// How far the numbers of calibrated cameras are off, as the views determine them: the covariance of all of them, and
/// what it was made from.
struct CameraCovariance {
    /// As covariance_parameters() names them.
    std::vector<std::string> parameters;
    /// N x N of the parameters; px, mm, radians. Rows and columns of parameters that were held fixed are 0.
    cv::Mat_<double> covariance;
    /// px, what one coordinate of a marker is off by: a standard deviation, degrees of freedom taken off.
    double residual_px = 0.0;
    /// px, what the markers' own sigmas let one expect of it, rms; 0: the markers were not refined.
    double marker_sigma_px = 0.0;
    /// Depths by the cameras of either half of the views differ by so many times what the covariance lets one expect;
    /// 0: not asked.
    double halves_ratio = 0.0;
    double blur_over_gap = 0.0; ///< of the photos, as a standard deviation over the paper between markers; 0: not known
    std::array<double, 3> distance_mm {}; ///< near, middle, far: depths of markers in camera 0, ascending
};

/// "cam0.fx": fx, fy, cx, cy and the distortion in OpenCV's order (k1, k2, p1, p2, k3, ...) of camera 0; of a pair the
/// same of camera 1, then rotation.x, y, z (a rotation vector) and translation.x, y, z of x1 = R x0 + T.
std::vector<std::string> covariance_parameters(const std::vector<CalibratedCamera>& cameras);

/// The cameras after a change of the parameters, in axes of camera 0.
/// @param change  N x 1, in the order of covariance_parameters()
std::vector<CalibratedCamera> changed_by(const std::vector<CalibratedCamera>& cameras, const cv::Mat_<double>& change);

/// Changes of the parameters, N x 1 each, whose outer products add up to the covariance: each as likely as one standard
/// deviation, and none depending on another. Empty of a matrix that is no covariance.
std::vector<cv::Mat_<double>> independent_changes(const cv::Mat_<double>& covariance);

/// Stands beside the cameras.yaml that it belongs to.
constexpr const char* covariance_file = "covariance.yaml";

/// The bytes of that file.
/// @param cameras_yaml  the very bytes of the camera file: it is known by their hash
std::string covariance_yaml(const CameraCovariance& covariance, const std::string& cameras_yaml);

/// As a file has it.
struct CovarianceFile {
    CameraCovariance covariance;
    std::string cameras_sha256; ///< of the camera file that it belongs to
};

/// Throws Failure that names the file when it holds anything that is no covariance of cameras.
CovarianceFile read_covariance(const std::string& file);

/// A covariance, or a clause that says why there is none.
struct FoundCovariance {
    std::optional<CameraCovariance> covariance;
    std::string why_none;
};

/// The covariance beside camera files, when it belongs to them; two files must be alike. Throws Failure for a damaged
/// one.
FoundCovariance covariance_beside(const std::vector<std::string>& camera_files);

} // namespace vexo
