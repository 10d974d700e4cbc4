#include "host/measurement/gap_points.h"

#include "host/clouds/gaps.h"
#include "host/measurement/cleaning.h"
#include "host/measurement/refine.h"

#include <cmath>

namespace vexo {

namespace {

/// Whether fringes can be seen at a pixel: no cause before the decoding was found.
bool shows_fringes(const Measured& m, int y, int x)
{
    const auto cause = static_cast<Cause>(m.causes.causes.at<uchar>(y, x));
    return cause != Cause::outside_image && cause != Cause::contrast && cause != Cause::modulation;
}

void add_point(Measured& m, int y, int x, float disparity, float sigma)
{
    const Geometry& g = m.geometry;
    const double z = g.depth(static_cast<double>(disparity));
    const auto index
        = static_cast<std::size_t>(y) * static_cast<std::size_t>(m.cloud.size.width) + static_cast<std::size_t>(x);
    m.cloud.points[index]
        = { static_cast<float>((x - g.cx) / g.f * z), static_cast<float>((y - g.cy) / g.f * z), static_cast<float>(z) };
    ++m.cloud.count;
    m.disparity.at<float>(y, x) = disparity;
    m.precision.sigma.at<float>(y, x) = static_cast<float>(std::abs(g.slope) * z * z) * sigma;
    auto& cause = m.causes.causes.at<uchar>(y, x);
    --m.causes.counts[cause];
    ++m.causes.counts[static_cast<std::size_t>(Cause::none)];
    cause = static_cast<uchar>(Cause::none);
}

} // namespace

void measure_gaps(const Stereo& stereo, const std::array<RawPhases, 2>& raw, Measured& m)
{
    constexpr float off_px = 0.5F, sigmas = 4.0F;
    const cv::Mat promised = planes_over_gaps(m.disparity, sigma_of_disparity(m));
    const Refined found = refine(raw, stereo.tables, promised);
    const auto [least, most] = disparity_limits(m.record);
    for (int y = 0; y < promised.rows; ++y)
        for (int x = 0; x < promised.cols; ++x) {
            const float d = found.disparity.at<float>(y, x), sigma = found.sigma.at<float>(y, x);
            const float apart = std::abs(d - promised.at<float>(y, x));
            const auto exact = static_cast<double>(d);
            if (!(apart <= off_px + sigmas * sigma) || exact < least || exact > most || m.geometry.depth(exact) <= 0.0
                || !shows_fringes(m, y, x))
                continue;
            add_point(m, y, x, d, sigma);
            ++m.precision.samples[found.samples.at<uchar>(y, x)];
            ++m.precision.in_gaps;
        }
}

} // namespace vexo
