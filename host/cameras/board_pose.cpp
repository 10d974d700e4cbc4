#include "host/cameras/board_pose.h"

#include "base/boundary.h"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace vexo {

cv::Matx44d BoardPose::matrix() const
{
    cv::Matx33d R;
    cv::Rodrigues(rvec, R);
    return { R(0, 0), R(0, 1), R(0, 2), tvec[0], R(1, 0), R(1, 1), R(1, 2), tvec[1], R(2, 0), R(2, 1), R(2, 2), tvec[2],
        0, 0, 0, 1 };
}

std::optional<BoardPose> solve_board_pose(const SeenMarkers& seen, const CalibratedCamera& camera)
{
    if (seen.board_mm.size() < fewest_markers_of_a_pose) return std::nullopt;
    BoardPose pose;
    const bool solved = value_if_opencv_throws(false, [&] { // it throws for markers in a line, say
        if (!cv::solvePnP(seen.board_mm, seen.image_px, camera.K, camera.D, pose.rvec, pose.tvec)) return false;
        cv::projectPoints(seen.board_mm, pose.rvec, pose.tvec, camera.K, camera.D, pose.projected_px);
        return true;
    });
    if (!solved) return std::nullopt;
    pose.rms_px = cv::norm(seen.image_px, pose.projected_px) / std::sqrt(static_cast<double>(seen.image_px.size()));
    if (!std::isfinite(pose.rms_px)) return std::nullopt;
    return pose;
}

} // namespace vexo
