#include "host/calibration/find_share.h"

#include "base/statistics.h"
#include "host/calibration/bundle.h"
#include "host/cameras/covariance_share.h"

#include <cmath>

namespace vexo {

namespace {

/// rms of the markers' own standard deviations of a coordinate, px; 0: they were not refined.
double marker_sigma(const Calibrated& c)
{
    Squares sigmas;
    for (const auto& pictures : c.views.cameras)
        for (std::size_t v = 0; v < pictures.size(); ++v)
            for (const double sigma : pictures[v].sigma)
                if (c.used[v] && std::isfinite(sigma)) sigmas.add(sigma * sigma);
    return std::isfinite(sigmas.rms()) ? sigmas.rms() : 0.0;
}

/// How sure the cameras are; nothing where the views do not determine it.
std::optional<CameraCovariance> covariance_of(int flags, const Calibrated& c)
{
    const auto bundle = adjust_bundle(c.views, c.board, c.used, c.cameras, { flags, c.shape.kept });
    if (!bundle || c.fits[0].residuals.empty()) return std::nullopt;
    const std::vector<double>& depths = c.fits[0].marker_depths;
    return CameraCovariance { covariance_parameters(c.cameras), bundle->covariance, bundle->residual_px(),
        marker_sigma(c), 0.0, c.refinement.blur_over_gap, { depths[0], depths[1], depths[2] } };
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

void find_share(int flags, Calibrated& c)
{
    c.covariance = covariance_of(flags, c);
    if (!c.covariance) {
        c.share.why_unknown = c.direction.why_unknown = "the views do not determine all that is to be calibrated";
        return;
    }
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
