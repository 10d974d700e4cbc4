#include "host/measurement/bend.h"

#include "base/cpu.h"
#include "base/parallel.h"
#include "host/measurement/raw_phases.h"

#include <algorithm>
#include <vector>

namespace vexo {

namespace {

constexpr int radius = 3;
constexpr int least_points = 25; // of 49

VEXO_INLINE void add_row(const int* row, int cols, int* sums) noexcept
{
#pragma omp simd
    for (int x = 0; x < cols; ++x)
        sums[x] += row[x];
}

/// @param sums  of 2 radius + 1 rows, with `radius` zeros more at both ends
VEXO_INLINE void correct_row(const int* sums, const uchar* samples, int cols, float* disparity) noexcept
{
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int sum = sums[x - 3] + sums[x - 2] + sums[x - 1] + sums[x] + sums[x + 1] + sums[x + 2] + sums[x + 3];
        const int count = (sum + bend_count / 2) >> 24; // the sum of the bends is less than half of bend_count
        const float total = static_cast<float>(sum - count * bend_count) * bend_unit;
        const float mean = total / static_cast<float>(count < 1 ? 1 : count);
        const float t = shortest(static_cast<float>(x) - disparity[x]);
        const float moved = disparity[x] - mean * (2.0F - t * t);
        disparity[x] = ((count >= least_points) & (samples[x] == 5)) ? moved : disparity[x];
    }
}

/// Sums of the rows around one, and the row corrected by them.
VEXO_INLINE void go(const cv::Mat& bends, int y, const uchar* samples, int* sums, float* disparity) noexcept
{
    std::fill(sums, sums + bends.cols, 0);
    for (int i = std::max(y - radius, 0); i <= std::min(y + radius, bends.rows - 1); ++i)
        add_row(bends.ptr<int>(i), bends.cols, sums);
    correct_row(sums, samples, bends.cols, disparity);
}

void go_plain(const cv::Mat& bends, int y, const uchar* samples, int* sums, float* disparity) noexcept
{
    go(bends, y, samples, sums, disparity);
}

#if defined(__x86_64__)
VEXO_AVX2 void go_avx2(const cv::Mat& bends, int y, const uchar* samples, int* sums, float* disparity) noexcept
{
    go(bends, y, samples, sums, disparity);
}
#else
constexpr auto go_avx2 = go_plain;
#endif

} // namespace

void correct_bend(const cv::Mat& bends, const cv::Mat& samples, cv::Mat& disparity)
{
    constexpr int band = 32; // rows
    in_parallel(static_cast<std::size_t>((bends.rows + band - 1) / band), [&](std::size_t i) {
        std::vector<int> sums(static_cast<std::size_t>(bends.cols + 2 * radius), 0);
        const int begin = static_cast<int>(i) * band, end = std::min(begin + band, bends.rows);
        for (int y = begin; y < end; ++y)
            (Cpu::has_avx2() ? go_avx2 : go_plain)(
                bends, y, samples.ptr<uchar>(y), sums.data() + radius, disparity.ptr<float>(y));
    });
}

} // namespace vexo
