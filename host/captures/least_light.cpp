#include "host/captures/least_light.h"

#include "host/captures/noise.h"
#include "host/captures/positions.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

template <class Grey> void drop_mixtures_of(const cv::Mat& contrast, cv::Mat& mask)
{
    cv::Mat brightest;
    cv::dilate(contrast, brightest, cv::Mat::ones(3, 3, CV_8U));
    for (int y = 0; y < mask.rows; ++y) {
        const Grey *own = contrast.ptr<Grey>(y), *most = brightest.ptr<Grey>(y);
        uchar* const kept = mask.ptr(y);
        for (int x = 0; x < mask.cols; ++x)
            kept[x] = 5 * own[x] < 2 * most[x] ? 0 : kept[x];
    }
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
    if (contrast.depth() == CV_32F)
        drop_mixtures_of<float>(contrast, mask);
    else
        drop_mixtures_of<uchar>(contrast, mask);
}

} // namespace vexo
