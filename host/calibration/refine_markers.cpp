#include "host/calibration/refine_markers.h"

#include "base/statistics.h"
#include "host/calibration/marker_edges.h"
#include "host/calibration/marker_fit.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <optional>

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

/// What the model leaves of a marker's grey values, in units in which noise, which grows with the root of the light,
/// and faults of the model, which grow with the contrast, are alike for markers in the light and in the dark.
double misfit(const MarkerFit& fit)
{
    return fit.rms / std::sqrt(fit.paper - fit.ink);
}

using Fits = std::vector<std::optional<MarkerFit>>;

/// The misfit beyond which something lies on a marker that its model does not know: it would be believed otherwise, as
/// what is wrong counts as noise there.
double most_misfit(const Fits& fits)
{
    constexpr double times = 3.0; // clean markers differ by less, whatever the light
    std::vector<double> misfits;
    for (const auto& fit : fits)
        if (fit) misfits.push_back(misfit(*fit));
    return misfits.empty() ? 0.0 : times * median(misfits);
}

/// Median over the markers of their blur over the paper between them and the next.
double blur_over_gap(const Fits& fits, const std::vector<MarkerModel>& models, const BoardLayout& board)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < fits.size(); ++i)
        if (fits[i])
            ratios.push_back(
                fits[i]->blur * 0.5 * board.diameter_mm / ((board.pitch_mm - board.diameter_mm) * models[i].reach));
    return ratios.empty() ? 0.0 : median(ratios);
}

} // namespace

RefinedMarkers refine_markers(const cv::Mat& picture, const BoardFile& board, const BoardPose& pose,
    const CalibratedCamera& camera, const std::vector<cv::Point2f>& recognised)
{
    const std::vector<MarkerModel> models = marker_models(board, pose, camera);
    const std::vector<BoardMarker> markers = board_markers(board.layout);
    MarkerFitter fitter(picture, board);
    Fits fits(models.size());
    for (std::size_t i = 0; i < fits.size(); ++i)
        fits[i] = fitter.fit(models[i], markers[i].ring);
    const double most = most_misfit(fits);
    const auto judge = [&](std::size_t i) {
        const auto& fit = fits[i];
        if (!fit) return Marker::not_fitted;
        const bool seen = i < recognised.size() && recognised[i].x != FLT_MAX;
        if (moved_far(models[i], seen ? cv::Point2d(recognised[i]) : models[i].middle, fit->centre))
            return Marker::far_off;
        if (misfit(*fit) > most) return Marker::doubtful;
        const auto edges = centre_by_edges(picture, board, models[i], *fit, markers[i].ring);
        return edges && agree(*fit, *edges) ? Marker::kept : Marker::doubtful;
    };
    RefinedMarkers refined;
    refined.blur_over_gap = blur_over_gap(fits, models, board.layout);
    refined.centres.assign(models.size(), { FLT_MAX, FLT_MAX });
    refined.sigma.assign(models.size(), std::numeric_limits<double>::quiet_NaN());
    for (std::size_t i = 0; i < models.size(); ++i) {
        const Marker marker = judge(i);
        if (marker == Marker::kept) {
            refined.centres[i] = cv::Point2f(fits[i]->centre);
            refined.sigma[i] = sigma_of(*fits[i]);
        }
        refined.found += marker == Marker::kept ? 1 : 0;
        refined.not_fitted += marker == Marker::not_fitted ? 1 : 0;
        refined.far_off += marker == Marker::far_off ? 1 : 0;
        refined.doubtful += marker == Marker::doubtful ? 1 : 0;
    }
    return refined;
}

} // namespace vexo
