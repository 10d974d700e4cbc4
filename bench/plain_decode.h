#pragma once

#include "reference/plain_gray_phase.h"

/// Gray code + phase from the formulas, pixel by pixel and without haste.
namespace plain {

inline Rows valid_pixels(
    const cv::Mat_<uchar>& black, const cv::Mat_<uchar>& white, int min_contrast, int max_white, int min_white)
{
    Rows valid(static_cast<size_t>(white.rows));
    for (int y = 0; y < white.rows; ++y)
        for (int x = 0; x < white.cols; ++x)
            if (white(y, x) >= min_white && white(y, x) <= max_white && white(y, x) - black(y, x) >= min_contrast)
                valid[static_cast<size_t>(y)].push_back(x);
    return valid;
}

/// @param frames  dark, lit, 7 bit planes, 4 fringe frames
inline Decoded decode(const std::vector<cv::Mat_<uchar>>& frames, const vexo::GrayPhaseMatchingParam& p)
{
    Decoded d;
    d.valid = valid_pixels(frames[0], frames[1], p.min_contrast, p.max_white, p.min_white);
    d.gray = cv::Mat_<uchar>(frames[0].size(), uchar { 0 });
    d.phase = cv::Mat_<float>(frames[0].size(), 0.0F);
    for (int y = 0; y < d.gray.rows; ++y)
        for (int x : d.valid[static_cast<size_t>(y)]) {
            const double middle = (frames[0](y, x) + frames[1](y, x)) / 2.0;
            int bit = 0;
            int code = 0;
            for (size_t k = 2; k <= 8; ++k) {
                bit ^= frames[k](y, x) > middle ? 1 : 0; // a binary digit is the parity of the gray digits so far
                code = 2 * code + bit;
            }
            d.gray(y, x) = static_cast<uchar>(code);
            const int p0 = frames[9](y, x), p1 = frames[10](y, x), p2 = frames[11](y, x), p3 = frames[12](y, x);
            const float a = static_cast<float>(std::atan2(double(p1 - p3), double(p2 - p0)));
            d.phase(y, x) = static_cast<float>((double(float(CV_PI)) - double(a)) * double(0.15915494F));
        }
    return d;
}

} // namespace plain
