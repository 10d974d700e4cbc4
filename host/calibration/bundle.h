#pragma once

#include "host/calibration/board_views.h"
#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <optional>
#include <vector>

namespace vexo {

/// What of a bundle is free beside cameras and poses.
struct BundleOptions {
    int flags = 1;      ///< CALIB_* of OpenCV that the cameras were found with: what these held fixed stays fixed
    bool shape = false; ///< also the board's shape
};

/// Cameras, poses and the board's shape of least reprojection error, and how sure they are.
struct Bundle {
    std::vector<CalibratedCamera> cameras; ///< in raw camera-0 axes
    BoardShape shape;
    double squares = 0.0; ///< px^2, of all residuals
    int residuals = 0;    ///< coordinates of markers
    int parameters = 0;   ///< free ones, poses included

    /// Of the cameras, poses and a free shape being unknown too, in the order of covariance_parameters(); px, rad, mm.
    /// Rows of what was held fixed are 0.
    cv::Mat_<double> covariance;

    /// Standard deviation of a coordinate of a marker.
    double residual_px() const;
};

/// Adjusts the camera, or the pair with one fixed pose between both, all poses of the board and, where asked, its shape
/// to the markers of the used views; of a pair, to those that both cameras saw. The covariance is s^2 (J^T J)^-1 with
/// the poses eliminated (Schur complement). Source: Triggs, McLauchlan, Hartley, Fitzgibbon, Bundle adjustment - a
/// modern synthesis, Vision Algorithms 1999.
/// @param start  cameras found before, and `board` with the shape known before: a pose is found from these
/// @return nothing when the views leave a parameter undetermined, or for flags that tie parameters to each other
///         (CALIB_FIX_ASPECT_RATIO, CALIB_SAME_FOCAL_LENGTH, CALIB_FIX_INTRINSIC)
std::optional<Bundle> adjust_bundle(const BoardViews& views, const BoardFile& board, const std::vector<bool>& use,
    const std::vector<CalibratedCamera>& start, const BundleOptions& options);

/// Whether the board's shape explains more of the residuals than its five parameters do of noise: F test at 1e-3.
bool shape_is_significant(const Bundle& without, const Bundle& with);

} // namespace vexo
