#include "base/failure.h"
#include "base/statistics.h"
#include "host/accuracy/body_check.h"
#include "host/accuracy/expectation.h"
#include "host/clouds/plane_fit.h"

#include <cmath>

namespace vexo {

namespace {

/// What the calibration bends a flat body by. It is known for the whole picture; of a part of it, as of any surface of
/// second order, by so much less as its area is smaller.
std::optional<double> bend_of(const Judged& judged, const PlaneFit& fit, double depth)
{
    if (!judged.share) return std::nullopt;
    cv::Point low(judged.sight.size), high(0, 0);
    for (const std::size_t i : fit.inliers) {
        const cv::Point& p = judged.points[i].pixel;
        low = { std::min(low.x, p.x), std::min(low.y, p.y) };
        high = { std::max(high.x, p.x), std::max(high.y, p.y) };
    }
    const double part = static_cast<double>(cv::Rect(low, high).area()) / judged.sight.size.area();
    return part * judged.share->at(depth).bend_mm;
}

} // namespace

BodyCheck check_plane(const Judged& judged)
{
    const auto fit = fit_plane(judged.points, judged.sigma_known);
    if (!fit)
        throw Failure(judged.folder
            + ": no plane holds a fifth of the region's points; choose one that a plane fills with --box or --pixel");
    double depth = 0.0;
    std::vector<float> sizes;
    for (std::size_t k = 0; k < fit->inliers.size(); ++k) {
        depth += judged.points[fit->inliers[k]].point[2] / static_cast<double>(fit->inliers.size());
        sizes.push_back(static_cast<float>(std::abs(fit->residuals[k])));
    }
    Expectation flatness { fit->rms, fit->noise, bend_of(judged, *fit, depth) };
    if (!judged.sigma_known) flatness.noise.reset();
    const double outliers = 1.0 - static_cast<double>(fit->inliers.size()) / static_cast<double>(judged.points.size());
    BodyCheck check;
    check.figures = { { "outliers", outliers }, { "depth_mm", depth },
        { "normal", std::vector<double>(fit->normal.val, fit->normal.val + 3) } };
    Json& figure = check.figures["flatness"] = { { "name", "flatness, rms" } };
    figure.update(expectation_json(flatness));
    const std::vector<double> ends = quantiles(std::move(sizes), { 0.95, 1.0 });
    figure.update({ { "in_depth_mm", fit->depth_rms }, { "p95_mm", ends[0] }, { "largest_mm", ends[1] } });
    check.bounded = { "/flatness" };
    judge_outliers(outliers, "lie beside the plane", check);
    return check;
}

} // namespace vexo
