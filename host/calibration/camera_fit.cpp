#include "host/calibration/camera_fit.h"

#include "base/statistics.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

constexpr double degrees = 180.0 / CV_PI;

cv::Vec3d middle_of(const BoardFile& board)
{
    const cv::Point3f sum = board_point(board, 0) + board_point(board, static_cast<std::size_t>(board.markers()) - 1);
    return { 0.5 * sum.x, 0.5 * sum.y, 0.0 };
}

/// Distances from the camera.
struct Depths {
    std::vector<double> middles; ///< of the board's middle, of each view
    std::vector<float> markers;  ///< of all markers
};

/// One view against one camera; nothing where the markers determine no pose.
void fit_view(const CalibratedCamera& camera, const BoardPicture& view, const BoardFile& board, std::size_t v,
    CameraFit& fit, Depths& depths)
{
    const SeenMarkers seen = seen_markers(view, board);
    const auto pose = solve_board_pose(seen, camera);
    if (!pose) return;
    Squares own;
    for (std::size_t i = 0; i < seen.image_px.size(); ++i) {
        const cv::Point2f projected = pose->projected_px[i];
        const cv::Vec2d error(seen.image_px[i].x - projected.x, seen.image_px[i].y - projected.y);
        fit.residuals.push_back({ seen.image_px[i], error });
        own.add(error.dot(error));
    }
    fit.view_rms[v] = own.rms();
    fit.view_tilt[v] = tilt_deg(pose->rvec, pose->tvec, board);
    const cv::Matx44d camera_from_board = pose->matrix();
    const cv::Vec3d middle = middle_of(board);
    fit.normals.emplace_back(camera_from_board(0, 2), camera_from_board(1, 2), camera_from_board(2, 2));
    const auto depth_of
        = [&](double x, double y, double z) { return (camera_from_board * cv::Vec4d(x, y, z, 1.0))[2]; };
    depths.middles.push_back(depth_of(middle[0], middle[1], middle[2]));
    for (const cv::Point3f& m : seen.board_mm)
        depths.markers.push_back(static_cast<float>(depth_of(m.x, m.y, m.z)));
}

} // namespace

SeenMarkers seen_markers(const BoardPicture& view, const BoardFile& board)
{
    SeenMarkers seen;
    for (std::size_t k = 0; k < view.markers.size(); ++k) {
        if (view.markers[k].x == FLT_MAX) continue;
        seen.board_mm.push_back(board_point(board, k));
        seen.image_px.push_back(view.markers[k]);
    }
    return seen;
}

CameraFit fit_camera(
    const std::vector<Fold>& folds, std::size_t camera, const BoardViews& views, const BoardFile& board)
{
    CameraFit fit;
    fit.view_rms.assign(views.count(), nan);
    fit.view_tilt.assign(views.count(), nan);
    Depths depths;
    for (const Fold& fold : folds)
        for (std::size_t v = 0; v < views.count(); ++v)
            if (fold.views[v]) fit_view(fold.cameras[camera], views.cameras[camera][v], board, v, fit, depths);
    fit.middle_depth = median(depths.middles);
    fit.marker_depths = quantiles(depths.markers, { 0.05, 0.5, 0.95 });
    Squares all;
    for (const Residual& residual : fit.residuals)
        all.add(residual.error_px.dot(residual.error_px));
    fit.rms = all.rms();
    return fit;
}

double tilt_deg(const cv::Vec3d& rvec, const cv::Vec3d& tvec, const BoardFile& board)
{
    cv::Matx33d rotation;
    cv::Rodrigues(rvec, rotation);
    const cv::Vec3d middle = rotation * middle_of(board) + tvec;
    const cv::Vec3d normal(rotation(0, 2), rotation(1, 2), rotation(2, 2));
    return std::acos(std::min(std::abs(normal.dot(middle)) / cv::norm(middle), 1.0)) * degrees;
}

Spread spread_deg(const std::vector<cv::Vec3d>& directions)
{
    cv::Vec3d sum;
    for (const cv::Vec3d& direction : directions)
        sum += direction;
    if (directions.size() < 2 || !(cv::norm(sum) > 0)) return {};
    // Each as the rotation vector that takes the mean to it, cut down to the two coordinates at right angles to the
    // mean.
    const cv::Vec3d mean = cv::normalize(sum);
    const cv::Vec3d x = cv::normalize(mean.cross(std::abs(mean[0]) < 0.5 ? cv::Vec3d(1, 0, 0) : cv::Vec3d(0, 1, 0)));
    cv::Mat_<double> tilts(0, 2);
    for (const cv::Vec3d& direction : directions) {
        const cv::Vec3d axis = mean.cross(direction);
        const double sine = cv::norm(axis), angle = std::atan2(sine, mean.dot(direction)) * degrees;
        const cv::Vec3d tilt = sine > 0 ? axis * (angle / sine) : cv::Vec3d();
        tilts.push_back(cv::Mat_<double>({ 1, 2 }, { tilt.dot(x), tilt.dot(mean.cross(x)) }));
    }
    const cv::PCA main(tilts, cv::noArray(), cv::PCA::DATA_AS_ROW);
    const cv::Mat_<double> turned = main.project(tilts);
    Spread spread;
    double low = 0, high = 0;
    cv::minMaxLoc(turned.col(0), &low, &high);
    spread.along = high - low;
    cv::minMaxLoc(turned.col(1), &low, &high);
    spread.across = high - low;
    return spread;
}

double coverage(const std::vector<BoardPicture>& views, const std::vector<bool>& use, cv::Size size)
{
    constexpr int across = 8, down = 6;
    std::array<bool, across * down> cells {};
    for (std::size_t v = 0; v < views.size(); ++v) {
        for (const cv::Point2f& p : views[v].markers) {
            if (!use[v] || p.x == FLT_MAX) continue;
            const int cx = std::clamp(static_cast<int>(p.x * across / static_cast<float>(size.width)), 0, across - 1);
            const int cy = std::clamp(static_cast<int>(p.y * down / static_cast<float>(size.height)), 0, down - 1);
            cells[static_cast<std::size_t>(cy) * across + static_cast<std::size_t>(cx)] = true;
        }
    }
    return static_cast<double>(std::count(cells.begin(), cells.end(), true)) / (across * down);
}

std::vector<std::size_t> outliers(const std::vector<double>& view_rms)
{
    constexpr double times = 2.0, above_px = 0.05;
    const double usual = median(view_rms);
    std::vector<std::size_t> found;
    for (std::size_t v = 0; v < view_rms.size(); ++v)
        if (view_rms[v] > std::max(times * usual, usual + above_px)) found.push_back(v);
    return found;
}

} // namespace vexo
