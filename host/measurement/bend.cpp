#include "host/measurement/bend.h"

#include "base/parallel.h"

#include <algorithm>
#include <vector>

namespace vexo {

namespace {

constexpr int radius = 3;
constexpr int least_points = 25; // of 49

/// Sums of 2 radius + 1 rows; `sums` has `radius` zeros more at both ends.
void add_rows(const cv::Mat& bends, int y, int* sums)
{
    std::fill(sums, sums + bends.cols, 0);
    for (int i = std::max(y - radius, 0); i <= std::min(y + radius, bends.rows - 1); ++i) {
        const int* const row = bends.ptr<int>(i);
#pragma omp simd
        for (int x = 0; x < bends.cols; ++x)
            sums[x] += row[x];
    }
}

void correct_row(const int* sums, const uchar* samples, int cols, float* disparity)
{
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int sum = sums[x - 3] + sums[x - 2] + sums[x - 1] + sums[x] + sums[x + 1] + sums[x + 2] + sums[x + 3];
        const int count = (sum + bend_count / 2) >> 24; // the sum of the bends is less than half of bend_count
        const float total = static_cast<float>(sum - count * bend_count) * bend_unit;
        const float mean = total / static_cast<float>(count < 1 ? 1 : count);
        const float at = static_cast<float>(x) - disparity[x], t = at - std::floor(at + 0.5F);
        const float moved = disparity[x] - mean * (2.0F - t * t);
        disparity[x] = ((count >= least_points) & (samples[x] == 5)) ? moved : disparity[x];
    }
}

} // namespace

void correct_bend(const cv::Mat& bends, const cv::Mat& samples, cv::Mat& disparity)
{
    constexpr int band = 32; // rows
    in_parallel(static_cast<std::size_t>((bends.rows + band - 1) / band), [&](std::size_t i) {
        std::vector<int> sums(static_cast<std::size_t>(bends.cols + 2 * radius), 0);
        const int begin = static_cast<int>(i) * band, end = std::min(begin + band, bends.rows);
        for (int y = begin; y < end; ++y) {
            add_rows(bends, y, sums.data() + radius);
            correct_row(sums.data() + radius, samples.ptr<uchar>(y), bends.cols, disparity.ptr<float>(y));
        }
    });
}

} // namespace vexo
