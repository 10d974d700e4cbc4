#include "host/measurement/sigma.h"

#include <cmath>

namespace vexo {

CoordinateNoise gray_noise(const PeriodNoise& noise)
{
    return { noise.phase_noise[0], noise.phase_noise[1], noise.length_px };
}

CoordinateNoise multi_noise(const std::vector<PeriodNoise>& noise)
{
    const auto periods = static_cast<double>(noise.size());
    CoordinateNoise sum;
    std::array<double, 2> variances {};
    for (const PeriodNoise& one : noise) {
        for (std::size_t camera = 0; camera < 2; ++camera)
            variances[camera] += std::pow(one.period * one.phase_noise[camera], 2.0);
        sum.unit_px += one.length_px / one.period / periods;
    }
    sum.sigma0 = std::sqrt(variances[0]) / periods;
    sum.sigma1 = std::sqrt(variances[1]) / periods;
    return sum;
}

double remap_rounding()
{
    return std::sqrt(2.0 / 12.0) / 32.0;
}

double disparity_noise(const CoordinateNoise& noise, double fit_points)
{
    const double n = fit_points;
    const double k = 2.0 / 3.0 * ((n - 1.0 + 2.0 / 3.0) / (n * n) + 1.0 / (n * (n * n - 1.0)));
    return noise.unit_px * std::hypot(2.0 / 3.0 * noise.sigma0, std::sqrt(k) * noise.sigma1);
}

double predicted_noise(
    const CoordinateNoise& noise, double fit_points, double f_baseline, const std::vector<cv::Point3f>& cloud)
{
    const double sigma_d = std::hypot(disparity_noise(noise, fit_points), remap_rounding());
    double fourth_powers = 0.0;
    for (const cv::Point3f& p : cloud)
        fourth_powers += std::pow(static_cast<double>(p.z), 4.0);
    return std::sqrt(fourth_powers / static_cast<double>(cloud.size())) / f_baseline * sigma_d;
}

} // namespace vexo
