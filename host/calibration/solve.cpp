#include "host/calibration/solve.h"

#include "base/boundary.h"
#include "host/calibration/camera_fit.h"

#include <opencv2/calib3d.hpp>

#include <cfloat>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

/// Markers of the views that can be used, in the lists that OpenCV's solvers accept.
struct Points {
    std::vector<std::vector<cv::Point3f>> board;
    std::vector<std::vector<cv::Point2f>> image0, image1;
    std::vector<std::size_t> view;
};

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr int most_steps = 30;

Points points_of(const std::vector<BoardPicture>& pictures, const BoardFile& board, const std::vector<bool>& use)
{
    Points points;
    for (std::size_t v = 0; v < pictures.size(); ++v) {
        const SeenMarkers seen = seen_markers(pictures[v], board);
        if (!use[v] || seen.board_mm.size() < fewest_markers_of_a_pose) continue;
        points.board.push_back(seen.board_mm);
        points.image0.push_back(seen.image_px);
        points.view.push_back(v);
    }
    return points;
}

/// Markers that both cameras saw.
Points common_points(const BoardViews& views, const BoardFile& board, const std::vector<bool>& use)
{
    Points points;
    for (std::size_t v = 0; v < views.count(); ++v) {
        const std::vector<cv::Point2f>&a = views.cameras[0][v].markers, &b = views.cameras[1][v].markers;
        std::vector<cv::Point3f> on_board;
        std::vector<cv::Point2f> in0, in1;
        for (std::size_t k = 0; k < a.size() && k < b.size(); ++k) {
            if (a[k].x == FLT_MAX || b[k].x == FLT_MAX) continue;
            on_board.push_back(board_point(board, k));
            in0.push_back(a[k]);
            in1.push_back(b[k]);
        }
        if (!use[v] || on_board.size() < fewest_markers_of_a_pose) continue;
        points.board.push_back(on_board);
        points.image0.push_back(in0);
        points.image1.push_back(in1);
        points.view.push_back(v);
    }
    return points;
}

bool all_finite(double rms, std::initializer_list<cv::Mat> matrices)
{
    for (const cv::Mat& m : matrices)
        if (!cv::checkRange(m)) return false;
    return std::isfinite(rms);
}

/// Where calibrateCamera() begins.
struct Start {
    cv::Mat K = cv::Mat::eye(3, 3, CV_64F), D = cv::Mat::zeros(1, 5, CV_64F);
    int flags = 0;
};

/// @param before  found of the same views; nothing: none
Start start_of(const CalibratedCamera* before, const SolveOptions& options, cv::Size size)
{
    Start start;
    start.flags = options.flags;
    if (before != nullptr) {
        start.flags |= cv::CALIB_USE_INTRINSIC_GUESS;
        start.K = cv::Mat(before->K).clone();
        start.D = before->D.clone();
        return start;
    }
    if ((options.flags & cv::CALIB_USE_INTRINSIC_GUESS) == 0) return start;
    if (options.focal == 0.0) {
        start.flags &= ~cv::CALIB_USE_INTRINSIC_GUESS;
        return start;
    }
    start.K.at<double>(0, 0) = start.K.at<double>(1, 1) = options.focal;
    start.K.at<double>(0, 2) = size.width * 0.5;
    start.K.at<double>(1, 2) = size.height * 0.5;
    return start;
}

bool solve_one(const BoardViews& views, std::size_t index, const BoardFile& board, const std::vector<bool>& use,
    const SolveOptions& options, const CalibratedCamera* before, Solved& solved)
{
    const std::vector<BoardPicture>& pictures = views.cameras[index];
    const Points points = points_of(pictures, board, use);
    if (points.board.empty()) return false;
    CalibratedCamera camera;
    camera.size = pictures[points.view.front()].size;
    const Start start = start_of(before, options, camera.size);
    cv::Mat K = start.K, D = start.D, deviations, ignored, errors;
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, most_steps, DBL_EPSILON);
    std::vector<cv::Mat> rvecs, tvecs;
    solved.rms = cv::calibrateCamera(
        points.board, points.image0, camera.size, K, D, rvecs, tvecs, deviations, ignored, errors, start.flags, until);
    if (!all_finite(solved.rms, { K, D })) return false;
    camera.K = K;
    camera.D = D;
    solved.cameras.push_back(camera);
    std::vector<double> view_rms(views.count(), nan);
    for (std::size_t i = 0; i < points.view.size(); ++i)
        view_rms[points.view[i]] = errors.at<double>(static_cast<int>(i));
    solved.view_rms.push_back(view_rms);
    return true;
}

bool solve_pair(const BoardViews& views, const BoardFile& board, const std::vector<bool>& use,
    const SolveOptions& options, Solved& solved)
{
    const Points points = common_points(views, board, use);
    std::vector<CalibratedCamera>& cameras = solved.cameras;
    if (points.board.empty() || cameras[0].size != cameras[1].size) return false;
    std::array<cv::Mat, 2> K { cv::Mat(cameras[0].K), cv::Mat(cameras[1].K) };
    cv::Mat R, T, essential, fundamental;
    constexpr double settled = 1e-6;
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, most_steps, settled);
    const int flags = options.flags | (board.shape.bowed() ? cv::CALIB_USE_INTRINSIC_GUESS : 0);
    solved.rms = cv::stereoCalibrate(points.board, points.image0, points.image1, K[0], cameras[0].D, K[1], cameras[1].D,
        cameras[0].size, R, T, essential, fundamental, flags, until);
    if (!all_finite(solved.rms, { K[0], cameras[0].D, K[1], cameras[1].D, R, T })) return false;
    cameras[0].K = K[0];
    cameras[1].K = K[1];
    cameras[1].R = R;
    cameras[1].T = cv::Vec3d(T.ptr<double>());
    return true;
}

std::optional<Solved> solve_from(const std::vector<CalibratedCamera>& before, const BoardViews& views,
    const BoardFile& board, const std::vector<bool>& use, const SolveOptions& options)
{
    Solved solved;
    const bool done = value_if_opencv_throws(false, [&] {
        for (std::size_t k = 0; k < views.cameras.size(); ++k)
            if (!solve_one(views, k, board, use, options, before.empty() ? nullptr : &before[k], solved)) return false;
        return !views.pair() || solve_pair(views, board, use, options, solved);
    });
    if (!done) return std::nullopt;
    return solved;
}

} // namespace

std::optional<Solved> solve_cameras(
    const BoardViews& views, const BoardFile& board, const std::vector<bool>& use, const SolveOptions& options)
{
    if (!board.shape.bowed()) return solve_from({}, views, board, use, options);
    BoardFile flat = board;
    flat.shape = {};
    const auto first = solve_from({}, views, flat, use, options);
    if (!first) return std::nullopt;
    return solve_from(first->cameras, views, board, use, options);
}

} // namespace vexo
