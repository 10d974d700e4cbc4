#include "host/calibration/refine_markers.h"

#include "host/calibration/marker_edges.h"
#include "host/calibration/marker_fit.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

/// Why a marker is left out.
enum class Marker { kept, not_fitted, far_off, doubtful };

/// Standard deviation of a coordinate, by the mean of both.
double sigma_of(const MarkerFit& fit)
{
    return std::sqrt(0.5 * (fit.covariance(0, 0) + fit.covariance(1, 1)));
}

bool moved_far(const MarkerModel& model, cv::Point2d from, cv::Point2d to)
{
    constexpr double least_px = 1.0, radii = 0.15; // the binary outline errs by 0.4 px at most
    return cv::norm(to - from) > std::max(least_px, radii * model.reach);
}

bool agree(const MarkerFit& fit, cv::Point2d by_edges)
{
    constexpr double sigmas = 6.0, more_px = 0.03;
    return cv::norm(by_edges - fit.centre) <= sigmas * sigma_of(fit) + more_px;
}

} // namespace

RefinedMarkers refine_markers(const cv::Mat& picture, const BoardFile& board, const BoardPose& pose,
    const CalibratedCamera& camera, const std::vector<cv::Point2f>& recognised)
{
    const std::vector<MarkerModel> models = marker_models(board, pose, camera);
    const std::vector<BoardMarker> markers = board_markers(board.layout);
    MarkerFitter fitter(picture, board);
    const auto refine = [&](std::size_t i, cv::Point2f& centre, double& sigma) {
        const bool ring = markers[i].ring;
        const auto fit = fitter.fit(models[i], ring);
        if (!fit) return Marker::not_fitted;
        const bool seen = i < recognised.size() && recognised[i].x != FLT_MAX;
        if (moved_far(models[i], seen ? cv::Point2d(recognised[i]) : models[i].middle, fit->centre))
            return Marker::far_off;
        const auto edges = centre_by_edges(picture, board, models[i], *fit, ring);
        if (!edges || !agree(*fit, *edges)) return Marker::doubtful;
        centre = cv::Point2f(fit->centre);
        sigma = sigma_of(*fit);
        return Marker::kept;
    };
    RefinedMarkers refined;
    refined.centres.assign(models.size(), { FLT_MAX, FLT_MAX });
    refined.sigma.assign(models.size(), std::numeric_limits<double>::quiet_NaN());
    for (std::size_t i = 0; i < models.size(); ++i) {
        const Marker marker = refine(i, refined.centres[i], refined.sigma[i]);
        refined.found += marker == Marker::kept ? 1 : 0;
        refined.not_fitted += marker == Marker::not_fitted ? 1 : 0;
        refined.far_off += marker == Marker::far_off ? 1 : 0;
        refined.doubtful += marker == Marker::doubtful ? 1 : 0;
    }
    return refined;
}

} // namespace vexo
