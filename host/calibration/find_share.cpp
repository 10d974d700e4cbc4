#include "host/calibration/find_share.h"

#include <opencv2/imgproc.hpp>

namespace vexo {

namespace {

CameraCovariance covariance_of(const Calibrated& c)
{
    CameraCovariance covariance { covariance_parameters(c.cameras), c.bundle->covariance, c.bundle->residual_px(),
        c.refinement.made ? c.refinement.sigma : 0.0, {}, {} };
    const std::vector<double>& depths = c.fits[0].marker_depths;
    std::copy_n(depths.begin(), covariance.distance_mm.size(), covariance.distance_mm.begin());
    std::vector<cv::Point2f> seen, hull;
    for (const Residual& residual : c.fits[0].residuals)
        seen.emplace_back(residual.seen_px);
    cv::convexHull(seen, hull);
    covariance.seen_px.assign(hull.begin(), hull.end());
    return covariance;
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
        c.share_map = share_map(c.cameras, *c.covariance);
    } else {
        c.direction = direction_share(c.cameras[0], *c.covariance);
    }
}

} // namespace vexo
