#include "host/captures/noise.h"

#include "host/captures/fringe_steps.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// What the four steps of a pixel leave over, and the two second harmonics there.
struct Residual {
    explicit Residual(const FringeSteps& steps)
        : value(steps.residual())
    {
        const double s = steps.i1 - steps.i3, c = steps.i2 - steps.i0;
        const double b = std::max(0.5 * std::sqrt(s * s + c * c), 1.0);
        even = (c * c - s * s) / (4.0 * b);
        odd = s * c / (2.0 * b);
    }
    double value, even, odd;
};

/// A pixel and the one below it.
struct Sample {
    double mean, variance; ///< grey level of both, and what their residuals say of its variance
    Residual upper, lower;
};

/// Of every `step`-th pixel of every `step`-th row.
std::vector<Sample> samples_of(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask, int step)
{
    std::vector<Sample> samples;
    for (int y = step / 2; y + 1 < mask.rows; y += step)
        for (int x = step / 2; x < mask.cols; x += step) {
            if (mask.at<uchar>(y, x) == 0 || mask.at<uchar>(y + 1, x) == 0) continue;
            const FringeSteps upper(frames, first, y, x), lower(frames, first, y + 1, x);
            if (upper.all_below(clipped_grey) && lower.all_below(clipped_grey))
                samples.push_back({ 0.5 * (upper.mean() + lower.mean()), 0.0, Residual(upper), Residual(lower) });
        }
    return samples;
}

/// Takes the second harmonics out of the residuals, by the normal equations of both. Two residuals differ by half of
/// the noise's variance.
void find_variances(std::vector<Sample>& samples)
{
    double ee = 0.0, eo = 0.0, oo = 0.0, even_r = 0.0, odd_r = 0.0;
    for (const Sample& s : samples) {
        ee += s.upper.even * s.upper.even;
        eo += s.upper.even * s.upper.odd;
        oo += s.upper.odd * s.upper.odd;
        even_r += s.upper.even * s.upper.value;
        odd_r += s.upper.odd * s.upper.value;
    }
    const double determinant = ee * oo - eo * eo;
    const bool solvable = determinant > 1e-9 * ee * oo;
    const double a = solvable ? (even_r * oo - odd_r * eo) / determinant : 0.0;
    const double b = solvable ? (odd_r * ee - even_r * eo) / determinant : 0.0;
    const auto rest = [a, b](const Residual& r) { return r.value - a * r.even - b * r.odd; };
    for (Sample& s : samples) {
        const double difference = rest(s.lower) - rest(s.upper);
        s.variance = 2.0 * difference * difference;
    }
}

/// A straight line, and the means that it goes through.
struct Line {
    double c0, k, mean_grey, mean_variance;

    double at(double grey) const { return std::max(c0 + k * grey, 0.1); }
};

/// Least squares of the variance on the grey level, of the samples below `limit`.
template <class Limit> Line fit(const std::vector<Sample>& samples, const Limit& limit)
{
    constexpr double least_spread = 3.0; // grey levels; below it a slope means nothing
    double n = 0.0, a = 0.0, v = 0.0, aa = 0.0, av = 0.0;
    for (const Sample& s : samples) {
        if (s.variance > limit(s.mean)) continue;
        ++n;
        a += s.mean;
        v += s.variance;
        aa += s.mean * s.mean;
        av += s.mean * s.variance;
    }
    n = std::max(n, 1.0);
    const double spread = aa / n - a / n * (a / n);
    const double k = spread > least_spread * least_spread ? (av / n - a / n * (v / n)) / spread : 0.0;
    return { v / n - k * a / n, k, a / n, v / n };
}

} // namespace

NoiseModel estimate_noise(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets, const cv::Mat& mask)
{
    constexpr double wanted = 20000.0; // pairs
    const double seen = static_cast<double>(sets.size()) * cv::countNonZero(mask);
    const int step = std::max(1, static_cast<int>(std::sqrt(seen / wanted)));
    std::vector<Sample> samples;
    for (const std::size_t first : sets) {
        std::vector<Sample> own = samples_of(frames, first, mask, step);
        find_variances(own);
        samples.insert(samples.end(), own.begin(), own.end());
    }
    NoiseModel model;
    if (samples.empty()) return model;
    constexpr double outlier = 25.0; // standard deviations squared
    double bounded = 0.0;
    for (const Sample& s : samples)
        bounded += std::min(s.variance, 100.0) / static_cast<double>(samples.size());
    Line line = fit(samples, [&](double) { return outlier * bounded + 1.0; });
    for (int round = 1; round < 3; ++round)
        line = fit(samples, [line](double grey) { return outlier * line.at(grey); });
    if (line.k < 0.0) line = { line.mean_variance, 0.0, line.mean_grey, line.mean_variance };
    if (line.c0 >= model.c0) return { line.c0, line.k };
    model.k = line.mean_grey > 0.0 ? std::max(0.0, (line.mean_variance - model.c0) / line.mean_grey) : 0.0;
    return model;
}

} // namespace vexo
