#include "host/calibration/find_share.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

CameraCovariance covariance_of(const Calibrated& c)
{
    CameraCovariance covariance { covariance_parameters(c.cameras), c.bundle->covariance, c.bundle->residual_px(),
        c.refinement.made ? c.refinement.sigma : 0.0, 0.0, {}, {} };
    const std::vector<double>& depths = c.fits[0].marker_depths;
    std::copy_n(depths.begin(), covariance.distance_mm.size(), covariance.distance_mm.begin());
    std::vector<cv::Point2f> seen, hull;
    for (const Residual& residual : c.fits[0].residuals)
        seen.emplace_back(residual.seen_px);
    cv::convexHull(seen, hull);
    covariance.seen_px.assign(hull.begin(), hull.end());
    return covariance;
}

/// Each half has twice the variance of the whole, and their difference four times.
double halves_ratio(const Calibrated& c)
{
    if (!c.hold_out.done || !c.share.share) return 0.0;
    const DepthApart& apart = c.hold_out.apart;
    const double ratio = 0.5 * apart.depth / c.share.share->at(apart.distance).depth_mm;
    return std::isfinite(ratio) ? ratio : 0.0;
}

} // namespace

void find_share(Calibrated& c)
{
    if (!c.bundle || c.fits[0].residuals.empty()) {
        c.share.why_unknown = c.direction.why_unknown = "the views do not determine all that is to be calibrated";
        return;
    }
    c.covariance = covariance_of(c);
    if (c.is_pair()) {
        c.share = share_of(c.cameras, *c.covariance);
        c.covariance->halves_ratio = halves_ratio(c);
        if (c.share.share) c.share.share->invalid = why_invalid(*c.covariance);
        c.share_map = share_map(c.cameras, *c.covariance);
    } else {
        c.direction = direction_share(c.cameras[0], *c.covariance);
    }
}

} // namespace vexo
