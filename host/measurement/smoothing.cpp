#include "host/measurement/smoothing.h"

#include "base/failure.h"
#include "host/clouds/smooth.h"
#include "host/measurement/cleaning.h"

#include <cmath>

namespace vexo {

void smooth_points(Measured& m)
{
    if (m.cloud.count == 0) return;
    if (m.precision.sigma.empty()) throw Failure("--smooth: points have no sigma: " + m.precision.why_none);
    const Smoothed smoothed = smooth(m.disparity, sigma_of_disparity(m));
    const Geometry& g = m.geometry;
    for (int y = 0; y < m.disparity.rows; ++y)
        for (int x = 0; x < m.disparity.cols; ++x) {
            const float d = smoothed.disparity.at<float>(y, x);
            float& before = m.disparity.at<float>(y, x);
            const double z = g.depth(static_cast<double>(d));
            if (!(z > 0.0) || d == before) continue;
            before = d;
            const std::size_t index = static_cast<std::size_t>(y) * static_cast<std::size_t>(m.cloud.size.width)
                + static_cast<std::size_t>(x);
            m.cloud.points[index] = { static_cast<float>((x - g.cx) / g.f * z),
                static_cast<float>((y - g.cy) / g.f * z), static_cast<float>(z) };
            m.precision.sigma.at<float>(y, x)
                = static_cast<float>(std::abs(g.slope) * z * z) * smoothed.sigma.at<float>(y, x);
        }
    m.precision.smoothed = smoothed.changed;
}

} // namespace vexo
