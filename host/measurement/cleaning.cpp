#include "host/measurement/cleaning.h"

#include "base/parallel.h"

#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();

Cause cause_of(Fault fault)
{
    switch (fault) {
    case Fault::outlier:
        return Cause::outlier;
    case Fault::edge:
        return Cause::edge;
    default:
        return Cause::speckle;
    }
}

void remove_point(Measured& m, int y, int x, Cause cause)
{
    m.cloud.points[static_cast<std::size_t>(y) * static_cast<std::size_t>(m.cloud.size.width)
        + static_cast<std::size_t>(x)]
        = { none, none, none };
    --m.cloud.count;
    m.disparity.at<float>(y, x) = none;
    if (!m.precision.sigma.empty()) m.precision.sigma.at<float>(y, x) = none;
    m.causes.causes.at<uchar>(y, x) = static_cast<uchar>(cause);
    ++m.causes.counts[static_cast<std::size_t>(cause)];
    --m.causes.counts[static_cast<std::size_t>(Cause::none)];
}

} // namespace

const char* name_of(Cleaning cleaning)
{
    return cleaning == Cleaning::off ? "off" : cleaning == Cleaning::strict ? "strict" : "default";
}

CleaningRules cleaning_rules(Method method, bool refined, Cleaning cleaning)
{
    CleaningRules rules;
    if (cleaning == Cleaning::off) return rules;
    const bool strict = cleaning == Cleaning::strict;
    // Refinement leaves wrong points beside occlusions, most of them dim: they stand out from the median.
    rules.median = strict || refined || method == Method::sgbm;
    rules.neighbours = true;
    rules.edges = strict || method == Method::sgbm;
    constexpr int few = 120, block_few = 1600;
    constexpr float block_step = 0.5F; // blocks that match by chance hang together in larger patches
    if (strict || !refined) rules.speckles = few;
    if (method == Method::sgbm) {
        rules.speckles = block_few;
        rules.speckle_step = block_step;
    }
    return rules;
}

cv::Mat sigma_of_disparity(const Measured& m)
{
    if (m.precision.sigma.empty()) return {};
    cv::Mat sigma(m.disparity.size(), CV_32F);
    const auto slope = static_cast<float>(std::abs(m.geometry.slope));
    in_parallel(static_cast<std::size_t>(sigma.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        const float* const of_depth = m.precision.sigma.ptr<float>(y);
        float* const to = sigma.ptr<float>(y);
        for (int x = 0; x < sigma.cols; ++x) {
            const float z = m.cloud.point(y, x).z;
            to[x] = of_depth[x] / (slope * z * z);
        }
    });
    return sigma;
}

void remove_points(Measured& m, const cv::Mat& mask, Cause cause)
{
    for (int y = 0; y < mask.rows; ++y)
        for (int x = 0; x < mask.cols; ++x)
            if (mask.at<uchar>(y, x) != 0 && m.cloud.measured(y, x)) remove_point(m, y, x, cause);
}

void clean(Measured& m, const CleaningRules& rules)
{
    if (!rules.any() || m.cloud.count == 0) return;
    const cv::Mat faults = find_faults(m.disparity, sigma_of_disparity(m), rules);
    for (int y = 0; y < faults.rows; ++y) {
        const uchar* const row = faults.ptr<uchar>(y);
        for (int x = 0; x < faults.cols; ++x)
            if (const auto fault = static_cast<Fault>(row[x]); fault != Fault::none)
                remove_point(m, y, x, cause_of(fault));
    }
}

} // namespace vexo
