#include "host/clouds/clean.h"

#include "base/cpu.h"
#include "base/parallel.h"
#include "base/statistics.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace vexo {

namespace {

constexpr float sigmas = 4.0F;
constexpr float median_px = 0.5F, neighbour_px = 2.0F;
constexpr int reach = 2; ///< of the median's window
constexpr float far = -std::numeric_limits<float>::infinity();

/// The map with `reach` pixels around it; what is missing lies behind everything.
cv::Mat padded(const cv::Mat& disparity)
{
    cv::Mat map(disparity.rows + 2 * reach, disparity.cols + 2 * reach, CV_32F, cv::Scalar(static_cast<double>(far)));
    in_parallel(static_cast<std::size_t>(disparity.rows), [&](std::size_t row) {
        const auto* const from = disparity.ptr<float>(static_cast<int>(row));
        auto* const to = map.ptr<float>(static_cast<int>(row) + reach) + reach;
        for (int x = 0; x < disparity.cols; ++x)
            to[x] = from[x] == from[x] ? from[x] : far;
    });
    return map;
}

VEXO_INLINE void count_near(const float* other, const float* at, const float* limit, int n, int* count) noexcept
{
    for (int x = 0; x < n; ++x)
        count[x] += std::abs(other[x] - at[x]) <= limit[x] ? 1 : 0;
}

VEXO_INLINE void count_sides(
    const float* other, const float* low, const float* high, int n, int* up_to, int* below) noexcept
{
    for (int x = 0; x < n; ++x) {
        up_to[x] += other[x] <= high[x] ? 1 : 0;
        below[x] += other[x] < low[x] ? 1 : 0;
    }
}

void near_plain(const float* other, const float* at, const float* limit, int n, int* count) noexcept
{
    count_near(other, at, limit, n, count);
}

void sides_plain(const float* other, const float* low, const float* high, int n, int* up_to, int* below) noexcept
{
    count_sides(other, low, high, n, up_to, below);
}

#if defined(__x86_64__)
VEXO_AVX2 void near_avx2(const float* other, const float* at, const float* limit, int n, int* count) noexcept
{
    count_near(other, at, limit, n, count);
}

VEXO_AVX2 void sides_avx2(
    const float* other, const float* low, const float* high, int n, int* up_to, int* below) noexcept
{
    count_sides(other, low, high, n, up_to, below);
}
#else
constexpr auto near_avx2 = near_plain;
constexpr auto sides_avx2 = sides_plain;
#endif

/// Counts over the window around each pixel of a row, without a sort: the median m of n values is above d + t when
/// fewer than half of them are at most d + t, and below d - t when more than half are. From the first to the last pixel
/// with a point: a background costs nothing.
class RowTests {
public:
    explicit RowTests(int cols)
        : _up_to(static_cast<std::size_t>(cols))
        , _below(_up_to.size())
        , _low(_up_to.size())
        , _high(_up_to.size())
    {
    }

    /// @param sigma  of the row, px, without NaN
    void test(const cv::Mat& map, int y, const float* sigma, const CleaningRules& rules, uchar* faults)
    {
        const float* const row = map.ptr<float>(y + reach) + reach;
        _begin = 0;
        _end = static_cast<int>(_up_to.size());
        while (_begin < _end && row[_begin] == far)
            ++_begin;
        while (_end > _begin && row[_end - 1] == far)
            --_end;
        if (_begin == _end) return;
        if (rules.edges) _mark_edges(map, y, sigma + _begin, faults + _begin);
        if (rules.neighbours) _mark_lonely(map, y, sigma + _begin, faults + _begin);
        if (rules.median) _mark_far(map, y, sigma + _begin, faults + _begin);
    }

private:
    const float* _row(const cv::Mat& map, int y) const { return map.ptr<float>(y + reach) + reach + _begin; }
    int _cols() const { return _end - _begin; }

    /// Counts in `_up_to` how many of the eight neighbours are within 2 px.
    void _count_neighbours(const cv::Mat& map, int y, const float* sigma)
    {
        std::fill(_up_to.begin(), _up_to.end(), -1); // itself
        for (int x = 0; x < _cols(); ++x)
            _high[static_cast<std::size_t>(x)] = neighbour_px + sigmas * sigma[x];
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
                (Cpu::has_avx2() ? near_avx2 : near_plain)(
                    _row(map, y + dy) + dx, _row(map, y), _high.data(), _cols(), _up_to.data());
    }

    void _mark_lonely(const cv::Mat& map, int y, const float* sigma, uchar* faults)
    {
        _count_neighbours(map, y, sigma);
        for (int x = 0; x < _cols(); ++x)
            if (_up_to[static_cast<std::size_t>(x)] < 4) faults[x] = static_cast<uchar>(Fault::outlier);
    }

    /// Missing neighbours are no edge: these are shadows and the end of the picture.
    void _mark_edges(const cv::Mat& map, int y, const float* sigma, uchar* faults)
    {
        _count_neighbours(map, y, sigma);
        std::fill(_below.begin(), _below.end(), -1);
        for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx) {
                const float* const other = _row(map, y + dy) + dx;
                for (int x = 0; x < _cols(); ++x)
                    _below[static_cast<std::size_t>(x)] += other[x] >= std::numeric_limits<float>::lowest() ? 1 : 0;
            }
        for (int x = 0; x < _cols(); ++x)
            if (_up_to[static_cast<std::size_t>(x)] < _below[static_cast<std::size_t>(x)])
                faults[x] = static_cast<uchar>(Fault::edge);
    }

    void _mark_far(const cv::Mat& map, int y, const float* sigma, uchar* faults)
    {
        constexpr int window = (2 * reach + 1) * (2 * reach + 1), half = window / 2;
        const float* const at = _row(map, y);
        std::fill(_up_to.begin(), _up_to.end(), 0);
        std::fill(_below.begin(), _below.end(), 0);
        for (int x = 0; x < _cols(); ++x) {
            const float limit = median_px + sigmas * sigma[x];
            _low[static_cast<std::size_t>(x)] = at[x] - limit;
            _high[static_cast<std::size_t>(x)] = at[x] + limit;
        }
        for (int dy = -reach; dy <= reach; ++dy)
            for (int dx = -reach; dx <= reach; ++dx)
                (Cpu::has_avx2() ? sides_avx2 : sides_plain)(
                    _row(map, y + dy) + dx, _low.data(), _high.data(), _cols(), _up_to.data(), _below.data());
        for (int x = 0; x < _cols(); ++x) {
            const auto i = static_cast<std::size_t>(x);
            if (_up_to[i] <= half || _below[i] > half) faults[x] = static_cast<uchar>(Fault::outlier);
        }
    }

    int _begin = 0, _end = 0; ///< columns of the row that are tested
    std::vector<int> _up_to, _below;
    std::vector<float> _low, _high;
};

/// Sigma of each pixel. Where it alone is not known it is so large that the point stays; 0 when none is.
cv::Mat complete(const cv::Mat& sigma, cv::Size size)
{
    constexpr float large = 9.0F;
    cv::Mat known(size, CV_32F, cv::Scalar(0));
    if (sigma.empty() || cv::countNonZero(sigma == sigma) == 0) return known;
    in_parallel(static_cast<std::size_t>(size.height), [&](std::size_t row) {
        const float* const from = sigma.ptr<float>(static_cast<int>(row));
        float* const to = known.ptr<float>(static_cast<int>(row));
        for (int x = 0; x < size.width; ++x)
            to[x] = from[x] == from[x] ? from[x] : large;
    });
    return known;
}

float median_of(const cv::Mat& sigma)
{
    const std::vector<float> values = finite_values(sigma);
    return values.empty() ? 0.0F : static_cast<float>(quantile(values, 0.5));
}

void mark_speckles(const cv::Mat& disparity, const CleaningRules& rules, float median_sigma, cv::Mat& faults)
{
    constexpr double of = 1280.0 * 1024.0, least = 12.0;
    constexpr double largest = 32000.0, finest = 64.0; // of 16 bits; steps of a px
    double low = 0, high = 0;
    cv::minMaxLoc(disparity, &low, &high, nullptr, nullptr, disparity == disparity);
    const double scale = std::min(finest, largest / std::max({ 1.0, std::abs(low), std::abs(high) }));
    constexpr short missing = std::numeric_limits<short>::min();
    cv::Mat steps(disparity.size(), CV_16S, cv::Scalar(missing));
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = 0; x < disparity.cols; ++x) {
            const auto d = static_cast<double>(disparity.at<float>(y, x));
            if (d == d) steps.at<short>(y, x) = static_cast<short>(std::lround(d * scale));
        }
    const auto total = static_cast<double>(disparity.total());
    const int size = static_cast<int>(std::max(least, rules.speckles * total / of));
    cv::filterSpeckles(steps, missing, size, static_cast<double>(rules.speckle_step + sigmas * median_sigma) * scale);
    faults.setTo(static_cast<int>(Fault::speckle), (steps == missing) & (disparity == disparity) & (faults == 0));
}

} // namespace

cv::Mat find_faults(const cv::Mat& disparity, const cv::Mat& sigma, const CleaningRules& rules)
{
    cv::Mat faults = cv::Mat::zeros(disparity.size(), CV_8U);
    if (disparity.empty() || !rules.any()) return faults;
    const cv::Mat known = complete(sigma, disparity.size()), map = padded(disparity);
#pragma omp parallel
    {
        RowTests tests(disparity.cols);
#pragma omp for schedule(static)
        for (int y = 0; y < disparity.rows; ++y)
            tests.test(map, y, known.ptr<float>(y), rules, faults.ptr<uchar>(y));
    }
    faults.setTo(0, ~(disparity == disparity));
    if (rules.speckles > 0) mark_speckles(disparity, rules, median_of(sigma), faults);
    return faults;
}

} // namespace vexo
