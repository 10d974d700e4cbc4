#include "host/calibration/pair_agreement.h"

#include "base/statistics.h"
#include "host/cameras/board_pose.h"

#include <opencv2/calib3d.hpp>

#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// The same board in both cameras.
struct PairedView {
    std::size_t view;
    SeenMarkers right;
    cv::Matx44d cam0_from_board, cam1_from_cam0;
};

double error_px(const PairedView& v, const cv::Matx44d& cam1_from_cam0, const CalibratedCamera& camera1)
{
    const cv::Matx44d pose = cam1_from_cam0 * v.cam0_from_board;
    cv::Vec3d rvec;
    cv::Rodrigues(pose.get_minor<3, 3>(0, 0), rvec);
    std::vector<cv::Point2f> projected;
    cv::projectPoints(
        v.right.board_mm, rvec, cv::Vec3d(pose(0, 3), pose(1, 3), pose(2, 3)), camera1.K, camera1.D, projected);
    return cv::norm(v.right.image_px, projected) / std::sqrt(static_cast<double>(projected.size()));
}

} // namespace

std::vector<double> pair_agreement(const std::vector<CalibratedCamera>& cameras, const BoardViews& views,
    const std::vector<bool>& use, const BoardFile& board)
{
    std::vector<PairedView> pairs;
    for (std::size_t v = 0; v < views.count(); ++v) {
        if (!use[v] || !views.good(v)) continue;
        PairedView pair { v, seen_markers(views.cameras[1][v], board), {}, {} };
        const auto left = solve_board_pose(seen_markers(views.cameras[0][v], board), cameras[0]);
        const auto right = solve_board_pose(pair.right, cameras[1]);
        if (!left || !right) continue;
        pair.cam0_from_board = left->matrix();
        pair.cam1_from_cam0 = right->matrix() * pair.cam0_from_board.inv();
        pairs.push_back(pair);
    }
    std::vector<double> best(views.count(), nan);
    double least = std::numeric_limits<double>::infinity();
    for (const PairedView& reference : pairs) {
        std::vector<double> errors(views.count(), nan);
        for (const PairedView& pair : pairs)
            errors[pair.view] = error_px(pair, reference.cam1_from_cam0, cameras[1]);
        const double usual = median(errors);
        if (!(usual < least)) continue;
        least = usual;
        best = errors;
    }
    return best;
}

} // namespace vexo
