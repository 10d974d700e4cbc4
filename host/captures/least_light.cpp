#include "host/captures/least_light.h"

#include "host/captures/fringe_steps.h"
#include "host/captures/noise.h"
#include "host/captures/positions.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Whether the phases of a pixel and its neighbours in the row and in the column go on as on one surface: in a straight
/// line but for a fifth of a camera pixel, of fringes that are ten px long.
bool goes_on(const std::vector<cv::Mat>& frames, std::size_t first, const cv::Mat& mask, int y, int x)
{
    constexpr double most_bent = 0.02; // periods
    if (y < 1 || x < 1 || y + 1 >= mask.rows || x + 1 >= mask.cols) return false;
    const auto phase = [&](int row, int column) { return FringeSteps(frames, first, row, column).phase(); };
    for (const cv::Point& way : { cv::Point(1, 0), cv::Point(0, 1) }) {
        if (mask.at<uchar>(y - way.y, x - way.x) == 0 || mask.at<uchar>(y + way.y, x + way.x) == 0) return false;
        const double bent = phase(y - way.y, x - way.x) - 2.0 * phase(y, x) + phase(y + way.y, x + way.x);
        if (std::abs(bent - std::round(bent)) > most_bent) return false;
    }
    return true;
}

/// CV_8U, 255: less than 0.4 of the contrast of a neighbour.
template <class Grey> cv::Mat beside_brighter_of(const cv::Mat& contrast)
{
    cv::Mat brightest, found(contrast.size(), CV_8U);
    cv::dilate(contrast, brightest, cv::Mat::ones(3, 3, CV_8U));
    for (int y = 0; y < contrast.rows; ++y) {
        const Grey *own = contrast.ptr<Grey>(y), *most = brightest.ptr<Grey>(y);
        uchar* const to = found.ptr(y);
        for (int x = 0; x < contrast.cols; ++x)
            to[x] = 5 * own[x] < 2 * most[x] ? 255 : 0;
    }
    return found;
}

cv::Mat beside_brighter(const cv::Mat& contrast)
{
    return contrast.depth() == CV_32F ? beside_brighter_of<float>(contrast) : beside_brighter_of<uchar>(contrast);
}

} // namespace

LeastLight usual_light()
{
    return { least_contrast, least_modulation, false };
}

LeastLight least_light(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets)
{
    constexpr int contrast_floor = 8, fewest_pixels = 1000;
    constexpr double modulation_floor = 3.0, sigmas = 3.5;
    const LeastLight usual = usual_light();
    cv::Mat lit;
    cv::subtract(frames[1], frames[0], lit);
    lit = lit >= contrast_floor;
    if (sets.empty() || cv::countNonZero(lit) < fewest_pixels) return usual;
    const NoiseModel noise = estimate_noise(frames, sets, lit);
    const double dim_grey = cv::mean(frames[0], lit)[0] + 0.5 * contrast_floor;
    const double s = std::sqrt(noise.c0 + noise.k * dim_grey);
    const int contrast = static_cast<int>(std::ceil(2.0 * sigmas * std::sqrt(1.5) * s));
    return { std::clamp(contrast, contrast_floor, usual.contrast),
        std::clamp(sigmas * s, modulation_floor, usual.modulation), true };
}

void drop_mixtures(const cv::Mat& contrast, cv::Mat& mask)
{
    mask.setTo(0, beside_brighter(contrast));
}

void drop_mixtures(
    const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets, const cv::Mat& contrast, cv::Mat& mask)
{
    const cv::Mat suspect = beside_brighter(contrast), seen = mask.clone();
    for (int y = 0; y < mask.rows; ++y) {
        const uchar* const asked = suspect.ptr(y);
        uchar* const kept = mask.ptr(y);
        for (int x = 0; x < mask.cols; ++x)
            if (asked[x] != 0 && kept[x] != 0 && !std::all_of(sets.begin(), sets.end(), [&](std::size_t first) {
                    return goes_on(frames, first, seen, y, x);
                }))
                kept[x] = 0;
    }
}

} // namespace vexo
