#include "host/calibration/pair_agreement.h"

#include "base/statistics.h"
#include "host/cameras/board_pose.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

/// The same board in both cameras, when the photos of a view belong together.
struct PairedView {
    std::size_t view;
    SeenMarkers right; ///< some of them
    cv::Matx44d cam0_from_board, cam1_from_board;
};

/// A dozen markers all over the board say as much of a pose as all.
SeenMarkers thinned(const SeenMarkers& all)
{
    constexpr std::size_t enough = 12;
    const std::size_t step = std::max<std::size_t>(1, all.board_mm.size() / enough);
    SeenMarkers some;
    for (std::size_t i = 0; i < all.board_mm.size(); i += step) {
        some.board_mm.push_back(all.board_mm[i]);
        some.image_px.push_back(all.image_px[i]);
    }
    return some;
}

/// What each photo says of the board's pose, and which photos fit together.
class Poses {
public:
    Poses(const std::vector<CalibratedCamera>& cameras, const BoardViews& views, const std::vector<bool>& use,
        const BoardFile& board)
        : _camera1(cameras[1])
    {
        for (std::size_t v = 0; v < views.count(); ++v) {
            if (!use[v] || !views.good(v)) continue;
            const SeenMarkers seen = seen_markers(views.cameras[1][v], board);
            const auto left = solve_board_pose(seen_markers(views.cameras[0][v], board), cameras[0]);
            const auto right = solve_board_pose(seen, cameras[1]);
            if (left && right) _views.push_back({ v, thinned(seen), left->matrix(), right->matrix() });
        }
    }

    std::size_t count() const { return _views.size(); }
    std::size_t view(std::size_t i) const { return _views[i].view; }

    /// Where camera 1 stands when camera 0's photo of view i and camera 1's of view j were taken together.
    cv::Matx44d cam1_from_cam0(std::size_t i, std::size_t j) const
    {
        return _views[j].cam1_from_board * _views[i].cam0_from_board.inv();
    }

    /// Camera 1's markers of view j against what camera 0's photo of view i expects, rms in px.
    double error_px(std::size_t i, std::size_t j, const cv::Matx44d& cam1_from_cam0) const
    {
        const SeenMarkers& seen = _views[j].right;
        const cv::Matx44d pose = cam1_from_cam0 * _views[i].cam0_from_board;
        cv::Vec3d rvec;
        cv::Rodrigues(pose.get_minor<3, 3>(0, 0), rvec);
        std::vector<cv::Point2f> projected;
        cv::projectPoints(
            seen.board_mm, rvec, cv::Vec3d(pose(0, 3), pose(1, 3), pose(2, 3)), _camera1.K, _camera1.D, projected);
        return cv::norm(seen.image_px, projected) / std::sqrt(static_cast<double>(projected.size()));
    }

    /// Errors of the views as they are paired.
    std::vector<double> errors(const cv::Matx44d& cam1_from_cam0) const
    {
        std::vector<double> all;
        for (std::size_t i = 0; i < count(); ++i)
            all.push_back(error_px(i, i, cam1_from_cam0));
        return all;
    }

    /// The least of the errors of camera 0's photo i with any of camera 1's.
    std::pair<double, std::size_t> best_partner(std::size_t i, const cv::Matx44d& cam1_from_cam0) const
    {
        std::pair<double, std::size_t> best { infinity, i };
        for (std::size_t j = 0; j < count(); ++j)
            best = std::min(best, { error_px(i, j, cam1_from_cam0), j });
        return best;
    }

private:
    CalibratedCamera _camera1;
    std::vector<PairedView> _views;
};

/// An error that most right pairs stay below: a third of the views must be right.
double usual_error(std::vector<double> errors)
{
    if (errors.empty()) return infinity;
    std::sort(errors.begin(), errors.end());
    return errors[errors.size() / 3];
}

/// A relative pose, and how well the views agree with it.
struct Consensus {
    cv::Matx44d cam1_from_cam0 = cv::Matx44d::eye();
    double usual = infinity;

    void offer(const cv::Matx44d& pose, const std::vector<double>& errors)
    {
        const double theirs = usual_error(errors);
        if (!(theirs < usual)) return;
        usual = theirs;
        cam1_from_cam0 = pose;
    }
    /// Poses of single photos are known to some px; wrong pairs are off by tens or hundreds.
    bool fits(double error_px) const { return error_px <= 3.0 * usual + 1.0; }
};

/// As the views are paired.
Consensus of_the_views(const Poses& poses)
{
    Consensus best;
    for (std::size_t i = 0; i < poses.count(); ++i) {
        const cv::Matx44d pose = poses.cam1_from_cam0(i, i);
        best.offer(pose, poses.errors(pose));
    }
    return best;
}

/// However the photos are paired, for pictures that are all out of step.
Consensus of_any_pairs(const Poses& poses)
{
    constexpr std::size_t tried = 4; // photos of camera 0 whose partner is looked for
    Consensus best;
    for (std::size_t i = 0; i < std::min(tried, poses.count()); ++i)
        for (std::size_t j = 0; j < poses.count(); ++j) {
            const cv::Matx44d pose = poses.cam1_from_cam0(i, j);
            std::vector<double> errors;
            for (std::size_t k = 0; k < poses.count(); ++k)
                errors.push_back(poses.best_partner(k, pose).first);
            best.offer(pose, errors);
        }
    return best;
}

} // namespace

PairAgreement pair_agreement(const std::vector<CalibratedCamera>& cameras, const BoardViews& views,
    const std::vector<bool>& use, const BoardFile& board)
{
    constexpr double believable_px = 5.0;
    const Poses poses(cameras, views, use, board);
    PairAgreement agreement { std::vector<double>(views.count(), nan), {} };
    Consensus consensus = of_the_views(poses);
    if (consensus.usual > believable_px && poses.count() > 2) consensus = of_any_pairs(poses);
    const std::vector<double> errors = poses.errors(consensus.cam1_from_cam0);
    for (std::size_t i = 0; i < poses.count(); ++i) {
        agreement.error_px[poses.view(i)] = errors[i];
        if (consensus.fits(errors[i]) || consensus.usual > believable_px) continue;
        const auto [error, j] = poses.best_partner(i, consensus.cam1_from_cam0);
        if (j != i && consensus.fits(error) && !consensus.fits(errors[j]))
            agreement.moved.push_back({ poses.view(i), poses.view(j) });
    }
    return agreement;
}

std::string exchange_in_words(const PairAgreement& agreement, const BoardViews& views)
{
    constexpr int enough = 3; // of a series that is out of step the first say it all
    std::string exchanged, others;
    int more = 0;
    for (const Partners& p : agreement.moved) {
        const auto back = std::find_if(agreement.moved.begin(), agreement.moved.end(),
            [&](const Partners& other) { return other.cam0 == p.cam1 && other.cam1 == p.cam0; });
        const std::string &own = views.cameras[1][p.cam0].name, &right = views.cameras[1][p.cam1].name;
        if (back != agreement.moved.end() && p.cam0 < p.cam1)
            exchanged += (exchanged.empty() ? "" : ", ") + own + " and " + right;
        if (back == agreement.moved.end() && ++more <= enough)
            others += (others.empty() ? "" : ", ") + right + " of camera 1 belongs to " + views.cameras[0][p.cam0].name
                + " of camera 0";
    }
    if (more > enough) others += ", and " + std::to_string(more - enough) + " more";
    if (!exchanged.empty()) exchanged += " of camera 1 (or of camera 0) are exchanged";
    return exchanged + (exchanged.empty() || others.empty() ? "" : "; ") + others;
}

} // namespace vexo
