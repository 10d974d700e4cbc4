#include "board/PreProcessor.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

/// px; the sum over a larger block, up to 255 a pixel, exceeds OpenCV's 32 bits.
constexpr int max_block = 2901;

/// trunc(value) as an int; NaN gives 0 and what lies outside of int its nearest end.
int truncated(double value)
{
    if (std::isnan(value)) return 0;
    constexpr double lowest = std::numeric_limits<int>::min();
    constexpr double highest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(value, lowest, highest));
}

} // namespace

void PreProcessor::init_preproc(PreProcParam& param)
{
    preproc_param = param;
    if (preproc_param.gamma != 1.0) gamma_init(256);
}

void PreProcessor::gamma_init(int n)
{
    gamma_table.resize(static_cast<size_t>(std::max(n, 0)));
    const double scale = 1.0 / (n - 1.0);
    for (size_t i = 0; i < gamma_table.size(); ++i) {
        const double level = std::pow(static_cast<double>(i) * scale, preproc_param.gamma) * (n - 1.0);
        gamma_table[i] = truncated(level + 0.5);
    }
}

void PreProcessor::gamma_correction(cv::Mat& src, cv::Mat& dst)
{
    if (gamma_table.size() < 256) return;
    for (int y = 0; y < src.rows; ++y) {
        const uchar* from = src.ptr(y);
        uchar* to = dst.ptr(y);
        for (int x = 0; x < src.cols; ++x)
            to[x] = static_cast<uchar>(gamma_table[from[x]] & 0xff);
    }
}

cv::Mat PreProcessor::binarize(cv::Mat& img)
{
    const PreProcParam& p = preproc_param;
    cv::Mat out;
    switch (p.binarize_mode) {
    case kFixedThreshold:
        cv::threshold(img, out, p.threshold, 255, cv::THRESH_BINARY);
        break;
    case kOtsu:
        cv::threshold(img, out, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
        break;
    case kAdaptiveMean:
        if (p.threshold > max_block && p.threshold % 2 == 1) break; // an even one is refused below
        cv::adaptiveThreshold(img, out, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, p.threshold, p.C);
        break;
    default:
        break;
    }
    return out;
}

cv::Mat PreProcessor::preprocess(cv::Mat& src)
{
    const PreProcParam& p = preproc_param;
    cv::Mat work;
    if (p.invert)
        cv::bitwise_not(src, work);
    else
        src.copyTo(work);
    if (p.median) cv::medianBlur(work, work, 3);
    if (p.gamma != 1.0) gamma_correction(work, work);
    if (p.equalize) cv::equalizeHist(work, work);
    return binarize(work);
}

} // namespace vexo
