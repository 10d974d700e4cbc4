#pragma once

#include "host/calibration/board_file.h"
#include "host/cameras/camera_file.h"

#include <Eigen/Dense>
#include <opencv2/core.hpp>

#include <array>
#include <vector>

/// One view of a bundle: its markers, and what they say of all parameters.
namespace vexo {

constexpr int pose_parameters = 6;
constexpr int shape_parameters = 5;

/// Where each kind of parameter begins among those that all views share.
struct BundleColumns {
    std::array<int, 2> camera {}; ///< fx fy cx cy, then the distortion coefficients
    int rig = 0;                  ///< rotation and translation of camera 1; of a pair only
    int shape = 0;
    int count = 0;
};

BundleColumns bundle_columns(const std::vector<CalibratedCamera>& cameras);

/// Markers of one view, by place in the recogniser's lists and as seen by each camera.
struct BundleMarkers {
    std::vector<std::size_t> index;
    std::array<std::vector<cv::Point2d>, 2> seen_px;
};

/// The board's pose in camera 0: rotation (Rodrigues vector), translation in mm.
struct BundlePose {
    cv::Vec3d rvec, tvec;
};

/// Normal equations of one view: J^T J and J^T r of what is shared by all views, of the pose, and mixed.
struct ViewEquations {
    Eigen::MatrixXd shared, mixed;
    Eigen::Matrix<double, pose_parameters, pose_parameters> pose;
    Eigen::VectorXd shared_side;
    Eigen::Matrix<double, pose_parameters, 1> pose_side;
    double squares = 0.0; ///< px^2
};

ViewEquations view_equations(const BundleMarkers& markers, const BundlePose& pose, const BoardFile& board,
    const std::vector<CalibratedCamera>& cameras);

/// Sum of the squared residuals alone, px^2.
double view_squares(const BundleMarkers& markers, const BundlePose& pose, const BoardFile& board,
    const std::vector<CalibratedCamera>& cameras);

} // namespace vexo
