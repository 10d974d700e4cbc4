#pragma once

#include "host/cameras/camera_file.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <optional>
#include <vector>

namespace vexo {

/// Markers of a board in one picture: where they are on the board, and where they were seen.
struct SeenMarkers {
    std::vector<cv::Point3f> board_mm;
    std::vector<cv::Point2f> image_px;
};

/// Where a board stands: x_camera = R x_board + T, raw camera axes (x right, y down, z forward), mm.
struct BoardPose {
    cv::Vec3d rvec;                        ///< Rodrigues vector of R
    cv::Vec3d tvec;                        ///< T
    std::vector<cv::Point2f> projected_px; ///< where the markers ought to be seen
    double rms_px = 0.0;                   ///< of the distances to where they were seen

    /// 4 x 4, board to camera.
    cv::Matx44d matrix() const;
};

/// The pose of least reprojection error. Nothing when the markers determine none: fewer than `fewest`, or all of them
/// in a line.
constexpr std::size_t fewest_markers_of_a_pose = 5; // as the library's calibrators have it
std::optional<BoardPose> solve_board_pose(const SeenMarkers& seen, const CalibratedCamera& camera);

} // namespace vexo
