#include "host/measurement/plain_decoding.h"

#include "base/cpu.h"
#include "base/large_pages.h"
#include "base/parallel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();
constexpr int reach = 2;  ///< of the window that repairs
constexpr int band = 32;  ///< rows
constexpr int enough = 8; ///< neighbours that hold a pixel, or tell its number
template <class Rows> void for_bands(int rows, const Rows& work)
{
    in_parallel(static_cast<std::size_t>((rows + band - 1) / band), [&](std::size_t i) {
        const int begin = static_cast<int>(i) * band;
        work(begin, std::min(begin + band, rows));
    });
}

/// Gray code + phase.
class GrayCoordinates {
public:
    explicit GrayCoordinates(const std::vector<cv::Mat>& frames)
        : _frames(frames)
    {
    }

    static constexpr float half_period = 0.5F;

    void decode_row(const RawPhases& raw, int y, cv::Range columns, float* out) const
    {
        constexpr std::size_t first_plane = 2, planes = 7;
        const int cols = columns.size();
        const uchar *const dark = _frames[0].ptr(y) + columns.start, *const lit = _frames[1].ptr(y) + columns.start;
        std::vector<uchar> numbers(static_cast<std::size_t>(cols), 0), bits(numbers);
        uchar *const number = numbers.data(), *const bit = bits.data();
        for (std::size_t k = 0; k < planes; ++k) {
            const uchar* const plane = _frames[first_plane + k].ptr(y) + columns.start;
#pragma omp simd
            for (int x = 0; x < cols; ++x) { // whole bytes: 2 p > a + b where p > (a + b) / 2, rounded down
                const auto threshold = static_cast<uchar>((dark[x] & lit[x]) + ((dark[x] ^ lit[x]) >> 1));
                bit[x] = static_cast<uchar>(bit[x] ^ (plane[x] > threshold ? 1 : 0));
                number[x] = static_cast<uchar>(number[x] + number[x] + bit[x]);
            }
        }
        const float* const phase = raw.phases[0].ptr<float>(y) + columns.start;
        const float* const variance = raw.variance.ptr<float>(y) + columns.start;
        float* const to = out + columns.start;
#pragma omp simd
        for (int x = 0; x < cols; ++x) {
            const float own = static_cast<float>(number[x]) + 0.5F - phase[x];
            to[x] = variance[x] > 0.0F ? own : none;
        }
    }

    /// The coordinate with this pixel's phase that is nearest to `goal`.
    static float nearest(const RawPhases& raw, int y, int x, float goal)
    {
        const float phase = 0.5F - raw.phases[0].at<float>(y, x);
        return phase + std::round(goal - phase);
    }

private:
    const std::vector<cv::Mat>& _frames;
};

/// Three periods.
class MultiCoordinates {
public:
    explicit MultiCoordinates(const MultiPhaseMatchingParam& param)
    {
        constexpr int columns = 912; // beyond, the library knows no coordinate
        for (std::size_t f = 0; f < _periods.size(); ++f)
            _periods[f] = param.periods[f];
        half_period = 0.5F * static_cast<float>(*std::min_element(_periods.begin(), _periods.end()));
        _width = _periods[0] + _periods[1] + 1;
        _offsets.assign(
            static_cast<std::size_t>(_width) * static_cast<std::size_t>(_periods[0] + _periods[2] + 1), none);
        for (int x = 0; x < columns; ++x) {
            const auto start = [&](std::size_t f) { return x / _periods[f] * _periods[f]; };
            _offsets[_slot(start(0) - start(1), start(0) - start(2))]
                = static_cast<float>(start(0) + start(1) + start(2)) / 3.0F;
        }
    }

    float half_period;

    void decode_row(const RawPhases& raw, int y, cv::Range columns, float* out) const
    {
        const float* const variance = raw.variance.ptr<float>(y);
        for (int x = columns.start; x < columns.end; ++x)
            out[x] = variance[x] > 0.0F ? _decode(raw, y, x) : none;
    }

    float nearest(const RawPhases& raw, int y, int x, float goal) const
    {
        float sum = 0.0F;
        for (std::size_t f = 0; f < 3; ++f) {
            const auto T = static_cast<float>(_periods[f]);
            const float own = T * raw.phases[f].at<float>(y, x) - 0.5F;
            sum += own + T * std::round((goal - own) / T);
        }
        return sum / 3.0F;
    }

private:
    std::size_t _slot(int d1, int d2) const
    {
        return static_cast<std::size_t>(d1 + _periods[0])
            + static_cast<std::size_t>(_width) * static_cast<std::size_t>(d2 + _periods[0]);
    }

    /// As shortest() rounds.
    static int rounded(float v)
    {
        constexpr float shift = 12582912.0F;
        return static_cast<int>((v + shift) - shift);
    }

    float _decode(const RawPhases& raw, int y, int x) const
    {
        std::array<float, 3> at {};
        for (std::size_t f = 0; f < 3; ++f) {
            const auto T = static_cast<float>(_periods[f]);
            const float own = T * raw.phases[f].at<float>(y, x) - 0.5F;
            at[f] = own < -0.5F ? own + T : own;
        }
        const int d1 = rounded(at[1] - at[0]), d2 = rounded(at[2] - at[0]);
        if (d1 < -_periods[0] || d1 > _periods[1] || d2 < -_periods[0] || d2 > _periods[2]) return none;
        return _offsets[_slot(d1, d2)] + (at[0] + at[1] + at[2]) / 3.0F;
    }

    std::array<int, 3> _periods {};
    int _width = 0;
    std::vector<float> _offsets; ///< mean of where the three fringes start, px; NaN: no position has these differences
};

/// The columns of a row from the first pixel that is used to the last.
cv::Range used_columns(const float* variance, int cols)
{
    int begin = 0, end = cols;
    while (begin < end && !(variance[begin] > 0.0F))
        ++begin;
    while (end > begin && !(variance[end - 1] > 0.0F))
        --end;
    return { begin, end };
}

/// Median of the window's coordinates around (y, x); NaN: there are too few.
float median_around(const cv::Mat& decoded, int y, int x)
{
    std::array<float, (2 * reach + 1) * (2 * reach + 1)> around {};
    std::size_t count = 0;
    for (int i = y; i <= y + 2 * reach; ++i)
        for (int j = x; j <= x + 2 * reach; ++j)
            if (decoded.at<float>(i, j) == decoded.at<float>(i, j)) around[count++] = decoded.at<float>(i, j);
    if (count < static_cast<std::size_t>(enough)) return none;
    const auto middle = around.begin() + static_cast<std::ptrdiff_t>(count / 2);
    std::nth_element(around.begin(), middle, around.begin() + static_cast<std::ptrdiff_t>(count));
    return *middle;
}

/// Counts, of each column of a row, the 3 x 3 coordinates within `half` of its own; itself is one of them.
/// @param decoded  with `reach` pixels of NaN around it
VEXO_INLINE void count_near(const float* const rows[3], int cols, float half, int* near) noexcept
{
    const float *const above = rows[0], *const own = rows[1], *const below = rows[2];
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        int count = 0;
        for (int j = -1; j <= 1; ++j) {
            const float a = above[x + j] - own[x], b = own[x + j] - own[x], c = below[x + j] - own[x];
            count += ((a <= half) & (a >= -half)) + ((b <= half) & (b >= -half)) + ((c <= half) & (c >= -half));
        }
        near[x] = count;
    }
}

void count_plain(const float* const rows[3], int cols, float half, int* near) noexcept
{
    count_near(rows, cols, half, near);
}

#if defined(__x86_64__)
VEXO_AVX2 void count_avx2(const float* const rows[3], int cols, float half, int* near) noexcept
{
    count_near(rows, cols, half, near);
}
#else
constexpr auto count_avx2 = count_plain;
#endif

/// Whether enough of the 5 x 5 coordinates lie within `half` of the one in the middle.
bool holds(const cv::Mat& decoded, int y, int x, float half)
{
    const float own = decoded.at<float>(y + reach, x + reach);
    int near = -1; // itself
    for (int i = y; i <= y + 2 * reach; ++i) {
        const float* const row = decoded.ptr<float>(i);
        for (int j = x; j <= x + 2 * reach; ++j)
            near += std::abs(row[j] - own) <= half ? 1 : 0;
    }
    return near >= enough;
}

/// Repairs the pixels of a row.
/// @param near  room for the counts
template <class Coordinates>
void repair_row(
    const Coordinates& coordinates, const RawPhases& raw, const cv::Mat& decoded, int y, int* near, float* out)
{
    const int cols = raw.variance.cols;
    const float *const own = decoded.ptr<float>(y + reach) + reach, *const variance = raw.variance.ptr<float>(y);
    const cv::Range columns = used_columns(variance, cols);
    const float half = coordinates.half_period;
    std::copy(own, own + cols, out);
    const int first = columns.start + reach;
    const float* const rows[3]
        = { decoded.ptr<float>(y + reach - 1) + first, own + columns.start, decoded.ptr<float>(y + reach + 1) + first };
    (Cpu::has_avx2() ? count_avx2 : count_plain)(rows, columns.size(), half, near);
    for (int x = columns.start; x < columns.end; ++x) {
        if (near[x - columns.start] > enough || !(variance[x] > 0.0F) || holds(decoded, y, x, half)) continue;
        const float median = median_around(decoded, y, x);
        out[x] = std::abs(own[x] - median) <= half ? own[x] : coordinates.nearest(raw, y, x, median);
    }
}

template <class Coordinates> cv::Mat decode(const Coordinates& coordinates, const RawPhases& raw)
{
    const cv::Size size = raw.variance.size();
    cv::Mat decoded, repaired;
    create_large(decoded, { size.width + 2 * reach, size.height + 2 * reach }, CV_32F);
    create_large(repaired, size, CV_32F);
    for_bands(decoded.rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            float* const row = decoded.ptr<float>(y);
            std::fill(row, row + decoded.cols, none);
            if (y < reach || y >= size.height + reach) continue;
            const cv::Range columns = used_columns(raw.variance.ptr<float>(y - reach), size.width);
            coordinates.decode_row(raw, y - reach, columns, row + reach);
        }
    });
    for_bands(size.height, [&](int begin, int end) {
        std::vector<int> near(static_cast<std::size_t>(size.width));
        for (int y = begin; y < end; ++y)
            repair_row(coordinates, raw, decoded, y, near.data(), repaired.ptr<float>(y));
    });
    return repaired;
}

} // namespace

cv::Mat plain_coordinates(const std::vector<cv::Mat>& frames, const RawPhases& raw, const MatchingRecord& record)
{
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return decode(MultiCoordinates(*multi), raw);
    return decode(GrayCoordinates(frames), raw);
}

} // namespace vexo
