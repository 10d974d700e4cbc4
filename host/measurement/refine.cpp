#include "host/measurement/refine.h"

#include "base/cpu.h"
#include "base/large_pages.h"
#include "base/parallel.h"
#include "host/measurement/bend.h"
#include "host/measurement/row_lines.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();

/// A point on its way: which column, how far from it, by how many samples.
struct Found {
    int column = 0, samples = 0;
    float position = 0.0F, variance = none; ///< px, px^2
};

VEXO_INLINE void add_differences(
    const float* phase0, const float* phase1, const int* column, float weight, int cols, float* difference) noexcept
{
#pragma omp simd
    for (int x = 0; x < cols; ++x)
        difference[x] += weight * shortest(phase0[x] - phase1[column[x]]);
}

void differences_plain(
    const float* phase0, const float* phase1, const int* column, float weight, int cols, float* difference) noexcept
{
    add_differences(phase0, phase1, column, weight, cols, difference);
}

#if defined(__x86_64__)
VEXO_AVX2_GATHERS void differences_avx2(
    const float* phase0, const float* phase1, const int* column, float weight, int cols, float* difference) noexcept
{
    add_differences(phase0, phase1, column, weight, cols, difference);
}
#else
constexpr auto differences_avx2 = differences_plain;
#endif

/// What was found of a row, and where it goes.
struct FoundRow {
    const float* matches; ///< disparities
    const int *column, *samples;
    const float *position, *variance, *bend;
};

struct FinishedRow {
    float *disparity, *sigma;
    uchar* samples;
    int* bends;
};

VEXO_INLINE void finish(const FoundRow& from, const FinishedRow& row, int cols) noexcept
{
    const FoundRow f = from;
    const FinishedRow to = row;
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int n = f.matches[x] == f.matches[x] ? f.samples[x] : 0, k = f.column[x];
        const float refined = static_cast<float>(x - k) - f.position[x], sigma = __builtin_sqrtf(f.variance[x]);
        const int bend = packed_bend(f.bend[k]);
        to.samples[x] = static_cast<uchar>(n);
        to.disparity[x] = n > 0 ? refined : none;
        to.sigma[x] = n > 0 ? sigma : none;
        to.bends[x] = n == 5 ? bend : 0;
    }
}

void finish_plain(const FoundRow& from, const FinishedRow& row, int cols) noexcept
{
    finish(from, row, cols);
}

VEXO_INLINE void nearest_columns(const float* matches, int cols, int* column) noexcept
{
    const auto last = static_cast<float>(cols - 1);
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const float at = static_cast<float>(x) - matches[x] + 0.5F, inside = at < last ? at : last; // NaN: last
        column[x] = static_cast<int>(inside > 0.0F ? inside : 0.0F);
    }
}

void columns_plain(const float* matches, int cols, int* column) noexcept
{
    nearest_columns(matches, cols, column);
}

#if defined(__x86_64__)
VEXO_AVX2_GATHERS void finish_avx2(const FoundRow& from, const FinishedRow& row, int cols) noexcept
{
    finish(from, row, cols);
}

VEXO_AVX2 void columns_avx2(const float* matches, int cols, int* column) noexcept
{
    nearest_columns(matches, cols, column);
}
#else
constexpr auto finish_avx2 = finish_plain;
constexpr auto columns_avx2 = columns_plain;
#endif

/// One row after the other; a thread has one of these.
class RowRefiner {
public:
    RowRefiner(const std::array<RawPhases, 2>& raw, const RectifyingTables& tables, int cols)
        : _raw(raw)
        , _tables(tables)
        , _row0(cols, raw[0].sets)
        , _row1(cols, raw[1].sets)
        , _lines(cols)
        , _column(static_cast<std::size_t>(cols))
        , _samples(_column)
        , _difference(_column.size())
        , _position(_column.size())
        , _variance(_column.size())
    {
    }

    void refine(int y, const float* disparity, Refined& out, int* bends)
    {
        if (std::all_of(disparity, disparity + _lines.cols, [](float d) { return d != d; }))
            return _leave_empty(y, out, bends);
        (Cpu::has_avx2() ? columns_avx2 : columns_plain)(disparity, _lines.cols, _column.data());
        // What lies outside is of an earlier row; no point reads it.
        const Ranges ranges = _ranges(disparity);
        _row0.sample(_raw[0], _tables[0], y, ranges.of_camera0);
        _row1.sample(_raw[1], _tables[1], y, ranges.of_camera1);
        _lines.fit(_row1, _raw[1].sets);
        _find_differences();
        for (std::size_t x = 0; x < _column.size(); ++x)
            _row0.variance[x] *= kept_variance(_row0.u[x]) * kept_variance(_row0.v[x]);
        look_at_row(_lines,
            { _difference.data(), _column.data(), _row0.variance.data(), _position.data(), _variance.data(),
                _samples.data() });
        for (int x = 0; x < _lines.cols; ++x)
            if (_samples[static_cast<std::size_t>(x)] == 0 && disparity[x] == disparity[x]) _keep(x, _look_around(x));
        (Cpu::has_avx2() ? finish_avx2 : finish_plain)(
            { disparity, _column.data(), _samples.data(), _position.data(), _variance.data(), _lines.bend.data() },
            { out.disparity.ptr<float>(y), out.sigma.ptr<float>(y), out.samples.ptr<uchar>(y), bends }, _lines.cols);
    }

private:
    void _leave_empty(int y, Refined& out, int* bends) const
    {
        std::fill_n(out.disparity.ptr<float>(y), _lines.cols, none);
        std::fill_n(out.sigma.ptr<float>(y), _lines.cols, none);
        std::fill_n(out.samples.ptr<uchar>(y), _lines.cols, uchar { 0 });
        std::fill_n(bends, _lines.cols, 0);
    }

    void _keep(int x, const Found& found)
    {
        const auto i = static_cast<std::size_t>(x);
        _column[i] = found.column;
        _samples[i] = found.samples;
        _position[i] = found.position;
        _variance[i] = found.variance;
    }

    /// The columns that the points of a row need, in both cameras.
    struct Ranges {
        cv::Range of_camera0 { 0, 0 }, of_camera1 { 0, 0 };
    };

    Ranges _ranges(const float* disparity) const
    {
        int begin = 0, end = _lines.cols;
        while (begin < end && disparity[begin] != disparity[begin])
            ++begin;
        while (end > begin && disparity[end - 1] != disparity[end - 1])
            --end;
        if (begin == end) return {};
        int low = _lines.cols, high = 0;
        for (int x = begin; x < end; ++x) {
            const int k = _column[static_cast<std::size_t>(x)];
            const bool matched = disparity[x] == disparity[x];
            low = matched ? std::min(low, k) : low;
            high = matched ? std::max(high, k) : high;
        }
        return { { begin, end }, { std::max(low - line_margin, 0), std::min(high + line_margin + 1, _lines.cols) } };
    }

    void _find_differences()
    {
        std::fill(_difference.begin(), _difference.end(), 0.0F);
        for (std::size_t f = 0; f < _raw[1].sets.size(); ++f)
            (Cpu::has_avx2() ? differences_avx2 : differences_plain)(_row0.phases[f].data(), _row1.phases[f].data(),
                _column.data(), _raw[1].sets[f].weight, _lines.cols, _difference.data());
    }

    float _difference_at(int x, int k) const
    {
        float sum = 0.0F;
        for (std::size_t f = 0; f < _raw[1].sets.size(); ++f)
            sum += _raw[1].sets[f].weight
                * shortest(_row0.phases[f][static_cast<std::size_t>(x)] - _row1.phases[f][static_cast<std::size_t>(k)]);
        return sum;
    }

    /// Of the columns that rising steps lead to, within reach, the one whose coordinate is nearest.
    int _nearest_column(int x) const
    {
        constexpr int reach = 5;
        const int k = _column[static_cast<std::size_t>(x)];
        const float difference = _difference[static_cast<std::size_t>(x)];
        const float falls = -3.0F * std::sqrt(_row1.variance[static_cast<std::size_t>(k)]);
        int nearest = k;
        float least = _lines.usable[k] > 0.0F ? std::abs(difference) : std::numeric_limits<float>::infinity();
        for (const int side : { 1, -1 }) {
            float rise = 0.0F;
            for (int j = 1; j <= reach; ++j) {
                const float step = side > 0 ? _lines.step[k + j - 1] : _lines.step[k - j];
                if (!(step > falls)) break;
                rise += static_cast<float>(side) * step;
                const float apart = std::abs(difference - rise);
                if (!(_lines.usable[k + side * j] > 0.0F) || !(apart < least)) continue;
                least = apart;
                nearest = k + side * j;
            }
        }
        return nearest;
    }

    Found _look_around(int x) const
    {
        const int k = _nearest_column(x);
        const float d = _difference_at(x, k), spread = _lines.spread[k];
        const float two = d * _lines.inverse_step[d < 0.0F ? k - 1 : k];
        const Positions at { (d - _lines.mean5[k]) * _lines.inverse5[k], (d - _lines.mean3[k]) * _lines.inverse3[k],
            std::abs(two) <= 1.0F ? two : none };
        const float b = at.five - at.three, s53 = spread * share53(at.five), s32 = spread * share32(at.three);
        if (std::abs(at.five) <= 1.0F && at.three == at.three && !disagree(at.five, at.three, s53)
            && !disagree(at.five, at.two, spread * share52(at.five)))
            return _by_five(x, k, at.five, bias_of_five * std::max(0.0F, b * b - 2.0F * s53));
        const float c = at.two == at.two ? at.three - at.two : 0.0F;
        if (std::abs(at.three) <= 1.0F && !disagree(at.three, at.two, s32))
            return _by_three(x, k, at.three, std::max(0.0F, c * c - 2.0F * s32));
        if (at.two == at.two) return _by_two(x, k, at.two, d < 0.0F ? k - 1 : k);
        if (_just_holds(x, k, at, s53))
            return _by_five(x, k, at.five, bias_of_five * std::max(0.0F, b * b - 2.0F * s53));
        return { k, 0, 0.0F, none };
    }

    /// At the last, wider limits, as far as the noise may have moved the position out of the samples.
    bool _just_holds(int x, int k, const Positions& at, float s53) const
    {
        const float far = 1.0F
            + 3.0F * _lines.inverse[k]
                * std::sqrt(
                    _row0.variance[static_cast<std::size_t>(x)] + 0.2F * _row1.variance[static_cast<std::size_t>(k)]);
        return std::abs(at.five - at.three) <= 4.0F * std::sqrt(s53) + agreement_px && std::abs(at.five) <= far;
    }

    Found _by_five(int x, int k, float t, float bias) const
    {
        const float m = _lines.inverse[k];
        return { k, 5, t,
            _row0.variance[static_cast<std::size_t>(x)] * m * m + _lines.at_middle[k] + t * t * _lines.growing[k]
                + bias };
    }

    Found _by_three(int x, int k, float t, float bias) const
    {
        const float p = _mixed(k), kept = (1.0F - 2.0F * p / 3.0F) / 3.0F + t * t * (1.0F - 2.0F * p) * 0.5F;
        return { k, 3, t, _noise(x, k, kept, _lines.inverse[k]) + bias };
    }

    Found _by_two(int x, int k, float t, int left) const
    {
        const float p = _mixed(k), a = std::abs(t);
        const float kept = (1.0F - 2.0F * p) * ((1.0F - a) * (1.0F - a) + a * a) + 2.0F * p * a * (1.0F - a);
        return { k, 2, t, _noise(x, k, kept, _lines.inverse_step[left]) };
    }

    float _mixed(int k) const
    {
        const float u = _row1.u[static_cast<std::size_t>(k)];
        return u * (1.0F - u);
    }

    /// @param kept     share of one sample's variance that the line leaves
    /// @param inverse  of its slope
    float _noise(int x, int k, float kept, float inverse) const
    {
        const auto i = static_cast<std::size_t>(k);
        return (_row0.variance[static_cast<std::size_t>(x)] + kept_variance(_row1.v[i]) * kept * _row1.variance[i])
            * inverse * inverse;
    }

    const std::array<RawPhases, 2>& _raw;
    const RectifyingTables& _tables;
    RowPhases _row0, _row1; ///< the variance of camera 0 as interpolation leaves it
    RowLines _lines;
    std::vector<int> _column, _samples;
    std::vector<float> _difference, _position, _variance;
};

} // namespace

Refined refine(const std::array<RawPhases, 2>& raw, const RectifyingTables& tables, const cv::Mat& disparity)
{
    constexpr int band = 32; // rows
    Refined out;
    create_large(out.disparity, disparity.size(), CV_32F);
    create_large(out.sigma, disparity.size(), CV_32F);
    create_large(out.samples, disparity.size(), CV_8U);
    cv::Mat bends;
    create_large(bends, disparity.size(), CV_32S);
    in_parallel(static_cast<std::size_t>((disparity.rows + band - 1) / band), [&](std::size_t i) {
        RowRefiner rows(raw, tables, disparity.cols);
        const int begin = static_cast<int>(i) * band, end = std::min(begin + band, disparity.rows);
        for (int y = begin; y < end; ++y)
            rows.refine(y, disparity.ptr<float>(y), out, bends.ptr<int>(y));
    });
    correct_bend(bends, out.samples, out.disparity);
    return out;
}

} // namespace vexo
