#include "host/calibration/refine_views.h"

#include "base/parallel.h"
#include "base/pictures.h"
#include "base/statistics.h"
#include "base/stopwatch.h"
#include "host/calibration/camera_fit.h"
#include "host/calibration/refine_markers.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <optional>

namespace vexo {

namespace {

/// Where the board stands in each camera of a view; nothing where that is not known.
using ViewPoses = std::vector<std::optional<BoardPose>>;

/// The same board seen by the other camera: x_to = R x_from + T, with R = R_to R_from^T.
BoardPose seen_by(const CalibratedCamera& to, const CalibratedCamera& from, const BoardPose& pose)
{
    cv::Matx33d rotation;
    cv::Rodrigues(pose.rvec, rotation);
    const cv::Matx33d turn = to.R * from.R.t();
    BoardPose other;
    cv::Rodrigues(turn * rotation, other.rvec);
    other.tvec = turn * pose.tvec + to.T - turn * from.T;
    return other;
}

ViewPoses poses_of(
    const BoardViews& views, std::size_t view, const BoardFile& board, const std::vector<CalibratedCamera>& cameras)
{
    ViewPoses poses;
    for (std::size_t k = 0; k < cameras.size(); ++k) {
        const BoardPicture& picture = views.cameras[k][view];
        poses.push_back(
            picture.recognised() ? solve_board_pose(seen_markers(picture, board), cameras[k]) : std::nullopt);
    }
    for (std::size_t k = 0; k < poses.size() && poses.size() == 2; ++k)
        if (!poses[k] && poses[1 - k]) poses[k] = seen_by(cameras[k], cameras[1 - k], *poses[1 - k]);
    return poses;
}

/// Whether so many of the picture's markers were measured that they may stand for it: of those that were recognised, or
/// of the whole board where it was not.
bool enough(const RefinedMarkers& found, const BoardFile& board, const BoardPicture& picture)
{
    constexpr double most = 0.6;
    const int least = cvCeil(most * (picture.recognised() ? picture.found : board.markers()));
    return found.found >= std::max(least, static_cast<int>(fewest_markers_of_a_pose));
}

void take(const RefinedMarkers& found, BoardPicture& picture)
{
    picture.markers = found.centres;
    picture.sigma = found.sigma;
    picture.found = found.found;
    if (picture.recognised()) return;
    picture.code = 0;
    picture.step = SearchStep::by_other_camera;
    picture.reason.clear();
}

} // namespace

Refinement refine_views(BoardViews& views, std::vector<bool>& used, const BoardFile& board,
    const std::vector<CalibratedCamera>& cameras, Refused refused)
{
    Stopwatch clock;
    Refinement made;
    made.made = true;
    const std::size_t count = views.count();
    std::vector<ViewPoses> poses;
    for (std::size_t v = 0; v < count; ++v)
        poses.push_back(poses_of(views, v, board, cameras));
    std::vector<RefinedMarkers> found(count * cameras.size());
    in_parallel(found.size(), [&](std::size_t i) {
        const std::size_t v = i / cameras.size(), k = i % cameras.size();
        const BoardPicture& picture = views.cameras[k][v];
        if (!poses[v][k] || (refused == Refused::leave && !picture.recognised())) return;
        const cv::Mat grey = read_grey(picture.path);
        if (grey.size() == cameras[k].size)
            found[i] = refine_markers(grey, board, *poses[v][k], cameras[k], picture.markers);
    });
    double squares = 0.0;
    std::vector<double> blurs;
    for (std::size_t i = 0; i < found.size(); ++i) {
        const std::size_t v = i / cameras.size(), k = i % cameras.size();
        BoardPicture& picture = views.cameras[k][v];
        if (!enough(found[i], board, picture)) {
            made.pictures_kept += picture.recognised() ? 1 : 0;
            continue;
        }
        take(found[i], picture);
        made.markers += found[i].found;
        blurs.push_back(found[i].blur_over_gap);
        made.not_fitted += found[i].not_fitted;
        made.far_off += found[i].far_off;
        made.doubtful += found[i].doubtful;
        for (const double s : found[i].sigma)
            squares += s == s ? s * s : 0.0;
    }
    for (std::size_t v = 0; v < count; ++v) {
        made.views_added += !used[v] && views.good(v) ? 1 : 0;
        used[v] = views.good(v);
    }
    made.sigma = made.markers > 0 ? std::sqrt(squares / made.markers) : 0.0;
    made.blur_over_gap = blurs.empty() ? 0.0 : median(blurs);
    made.seconds = clock.lap();
    return made;
}

} // namespace vexo
