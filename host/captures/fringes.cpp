#include "host/captures/fringes.h"

#include "base/statistics.h"
#include "base/text.h"
#include "host/captures/fringe_steps.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

constexpr double pi = 3.14159265358979323846;

double wrapped(double difference)
{
    return difference - std::round(difference);
}

/// Sums over the pixels of a camera.
struct Sums {
    std::vector<float> slopes, modulations, residuals;
    std::vector<double> pixels_in_runs = std::vector<double>(10, 0.0); ///< by length, the last: all longer
    double pixels = 0.0;
};

/// Phase per pixel over a stretch of `span` px that lies in the mask; less noisy than a single step.
void add_slopes(const std::vector<float>& phase, const uchar* mask, Sums& sums)
{
    constexpr std::size_t span = 4;
    for (std::size_t x = 0; x + span < phase.size(); x += span) {
        double rise = 0.0;
        bool inside = mask[x] == 255;
        for (std::size_t i = x; i < x + span; ++i) {
            rise += wrapped(static_cast<double>(phase[i + 1]) - static_cast<double>(phase[i]));
            inside = inside && mask[i + 1] == 255;
        }
        if (inside && std::isfinite(rise)) sums.slopes.push_back(static_cast<float>(std::abs(rise) / span));
    }
}

void add_runs(const std::vector<float>& phase, const uchar* mask, Sums& sums)
{
    for (std::size_t begin = 0; begin < phase.size();) {
        if (mask[begin] != 255) {
            ++begin;
            continue;
        }
        std::size_t end = begin + 1;
        while (end < phase.size() && mask[end] == 255 && phase[end] >= phase[end - 1])
            ++end;
        const std::size_t length = end - begin;
        sums.pixels_in_runs[std::min(length, sums.pixels_in_runs.size() - 1)] += static_cast<double>(length);
        sums.pixels += static_cast<double>(length);
        begin = end;
    }
}

void add_row(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask, int y, Sums& sums)
{
    const uchar* const inside = mask.ptr<uchar>(y);
    std::vector<float> phase(static_cast<std::size_t>(mask.cols));
    for (int x = 0; x < mask.cols; ++x) {
        if (inside[x] != 255) continue;
        const FringeSteps steps(frames, first, y, x); // elsewhere the phase is 0 and used by nobody
        phase[static_cast<std::size_t>(x)] = static_cast<float>(steps.phase());
        sums.modulations.push_back(static_cast<float>(steps.modulation()));
        sums.residuals.push_back(static_cast<float>(steps.residual()));
    }
    add_slopes(phase, inside, sums);
    add_runs(phase, inside, sums);
}

/// Noise of grey values and of the phase. A grey noise s gives the residual the variance s^2 / 4 and the
/// phase s^2 / (2 m^2) rad^2 at modulation m, so 2 r^2 / m^2 averages to the phase's variance whatever way
/// the noise depends on brightness. Residuals beyond 5 standard deviations are motion or glare.
void noise(const Sums& sums, FringeFigures& figures)
{
    double limit = 1e9, variance = 0.0, phase_variance = 0.0;
    for (int round = 0; round < 3; ++round) {
        double squares = 0.0, phase_squares = 0.0, count = 0.0;
        for (std::size_t i = 0; i < sums.residuals.size(); ++i) {
            const double r = static_cast<double>(sums.residuals[i]), m = static_cast<double>(sums.modulations[i]);
            if (std::abs(r) > limit) continue;
            squares += r * r;
            phase_squares += 2.0 * r * r / (m * m);
            ++count;
        }
        variance = squares / std::max(count, 1.0);
        phase_variance = phase_squares / std::max(count, 1.0);
        limit = 5.0 * std::sqrt(variance) + 0.25;
    }
    figures.grey_noise = 2.0 * std::sqrt(variance);
    figures.phase_noise = std::sqrt(phase_variance) / (2.0 * pi);
}

FringeFigures lengths(Sums& sums)
{
    FringeFigures figures;
    if (sums.pixels == 0.0) return figures;
    const double slope = quantile(std::move(sums.slopes), 0.5);
    figures.length_px = slope > 0.0 ? 1.0 / slope : 0.0;
    double longer = 0.0;
    for (std::size_t n = figures.share_in_longer_runs.size(); n-- > 0;) {
        longer += sums.pixels_in_runs[n + 1];
        figures.share_in_longer_runs[n] = longer / sums.pixels;
    }
    return figures;
}

void drop_weak(const std::vector<cv::Mat>& frames, std::size_t first, double min_modulation, cv::Mat& mask, int y)
{
    uchar* const kept = mask.ptr<uchar>(y);
    for (int x = 0; x < mask.cols; ++x)
        if (kept[x] != 0 && FringeSteps(frames, first, y, x).modulation() < min_modulation) kept[x] = 0;
}

} // namespace

PixelMasks make_masks(const std::vector<cv::Mat>& frames, const LightLimits& limits,
    const std::vector<std::size_t>& sets, double min_modulation)
{
    PixelMasks masks { cv::Mat(frames[1].size(), CV_8U), {} };
    for (int y = 0; y < frames[1].rows; ++y) {
        const uchar *const black = frames[0].ptr(y), *const white = frames[1].ptr(y);
        uchar* const seen = masks.contrast.ptr(y);
        for (int x = 0; x < frames[1].cols; ++x)
            seen[x] = white[x] >= limits.min_white && white[x] <= limits.max_white
                    && white[x] - black[x] >= limits.min_contrast
                ? 255
                : 0;
    }
    masks.modulation = masks.contrast.clone();
    for (const std::size_t first : sets)
        for (int y = 0; y < masks.modulation.rows; ++y)
            drop_weak(frames, first, min_modulation, masks.modulation, y);
    return masks;
}

FringeFigures measure_fringes(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask)
{
    Sums sums;
    const auto pixels = static_cast<std::size_t>(cv::countNonZero(mask));
    sums.modulations.reserve(pixels);
    sums.residuals.reserve(pixels);
    for (int y = 0; y < mask.rows; ++y)
        add_row(frames, first, mask, y, sums);

    FringeFigures figures = lengths(sums);
    if (sums.pixels == 0.0) return figures;
    noise(sums, figures);
    figures.modulation = quantile(std::move(sums.modulations), 0.5);
    return figures;
}

double fringe_length(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask)
{
    Sums sums;
    std::vector<float> phase(static_cast<std::size_t>(mask.cols));
    for (int y = 0; y < mask.rows; ++y) {
        const uchar* const inside = mask.ptr<uchar>(y);
        for (int x = 0; x < mask.cols; ++x)
            phase[static_cast<std::size_t>(x)]
                = inside[x] == 255 ? static_cast<float>(FringeSteps(frames, first, y, x).phase()) : 0.0F;
        add_slopes(phase, inside, sums);
    }
    const double slope = quantile(std::move(sums.slopes), 0.5);
    return slope > 0.0 ? 1.0 / slope : 0.0;
}

FringeFigures measure_phase(const cv::Mat& phase, const cv::Mat& mask)
{
    Sums sums;
    for (int y = 0; y < mask.rows; ++y) {
        const std::vector<float> row(phase.ptr<float>(y), phase.ptr<float>(y) + phase.cols);
        add_slopes(row, mask.ptr<uchar>(y), sums);
        add_runs(row, mask.ptr<uchar>(y), sums);
    }
    return lengths(sums);
}

RunLengths choose_run_lengths(const FringeFigures& cam0, const FringeFigures& cam1)
{
    // A longer anchor keeps more stray runs out, but pixels of the runs that it turns down are mostly lost: the
    // gaps between anchors are filled only where the phase keeps rising. Up to 4, where it stops helping, take the
    // longest that still holds nearly all pixels. On captures with fringes of 11 to 90 px and phase noise of 0.003
    // to 0.03 periods, a share below 0.97 went with a loss of 3 to 25 % of the surface.
    constexpr double enough = 0.97;
    const auto anchored = [&](int n) {
        const auto i = static_cast<std::size_t>(n);
        return std::min(cam0.share_in_longer_runs[i], cam1.share_in_longer_runs[i]);
    };
    RunLengths lengths;
    while (lengths.anchor > 1 && anchored(lengths.anchor) < enough)
        --lengths.anchor;
    lengths.reason = "fringes " + number(cam0.length_px, 1) + " and " + number(cam1.length_px, 1)
        + " camera px long, phase noise " + number(cam0.phase_noise, 4) + " and " + number(cam1.phase_noise, 4)
        + " periods: " + percent(anchored(lengths.anchor), 1.0)
        + " of the pixels lie where the phase rises over more than " + std::to_string(lengths.anchor) + " px";
    return lengths;
}

double expected_loss(const std::vector<FringeFigures>& figures, const std::vector<int>& periods)
{
    double share = 0.0;
    for (std::size_t i = 0; i < figures.size(); ++i) {
        for (std::size_t k = 0; k < i; ++k) {
            const double sigma = std::hypot(periods[i] * figures[i].phase_noise, periods[k] * figures[k].phase_noise);
            if (sigma > 0.0) share += std::erfc(0.5 / (std::sqrt(2.0) * sigma));
        }
    }
    return std::min(share, 1.0);
}

WeakPixels find_weak_pixels(const std::vector<cv::Mat>& frames, int least, int min_contrast)
{
    cv::Mat contrast;
    cv::subtract(frames[1], frames[0], contrast);
    return { least, cv::countNonZero((contrast >= least) & (contrast < min_contrast)) };
}

} // namespace vexo
