#pragma once

#include <opencv2/core.hpp>

#include <cmath>
#include <limits>
#include <vector>

/// Bilinear remap written down step by step: the twin of remap_row(). Every source pixel is read through at().
namespace plain {

/// Position in 1/32 px, rounded to even; what is no number or too large lies far outside.
inline int in_32nds(float px)
{
    const float scaled = px * 32.0F;
    if (!(std::fabs(scaled) < 2147483648.0F)) return std::numeric_limits<int>::min();
    return static_cast<int>(std::nearbyint(scaled));
}

inline int floor_of_32(int value)
{
    return static_cast<int>(std::floor(value / 32.0));
}

inline uchar weigh(const uchar* s, int fx, int fy)
{
    const int sum = s[0] * (32 - fx) * (32 - fy) + s[1] * fx * (32 - fy) + s[2] * (32 - fx) * fy + s[3] * fx * fy;
    return static_cast<uchar>((sum + 512) / 1024);
}

inline float weigh(const float* s, int fx, int fy)
{
    const auto weight = [](int product) { return static_cast<float>(product) / 1024.0F; };
    float sum = s[0] * weight((32 - fx) * (32 - fy));
    sum = sum + s[1] * weight(fx * (32 - fy));
    sum = sum + s[2] * weight((32 - fx) * fy);
    sum = sum + s[3] * weight(fx * fy);
    return sum;
}

template <class T> cv::Mat_<T> remap(const cv::Mat_<T>& src, const cv::Mat& map_x, const cv::Mat& map_y, T fill)
{
    cv::Mat_<T> dst(map_x.size(), fill);
    for (int r = 0; r < dst.rows; ++r)
        for (int c = 0; c < dst.cols; ++c) {
            const int ix = in_32nds(map_x.at<float>(r, c)), iy = in_32nds(map_y.at<float>(r, c));
            const int x = floor_of_32(ix), y = floor_of_32(iy);
            if (x < 0 || y < 0 || x + 1 >= src.cols || y + 1 >= src.rows) continue;
            const T s[] = { src(y, x), src(y, x + 1), src(y + 1, x), src(y + 1, x + 1) };
            dst(r, c) = weigh(s, ix - 32 * x, iy - 32 * y);
        }
    return dst;
}

} // namespace plain
