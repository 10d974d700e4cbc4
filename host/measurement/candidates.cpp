#include "host/measurement/candidates.h"

#include "base/cpu.h"
#include "base/large_pages.h"
#include "base/parallel.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();
constexpr int band = 32; ///< rows

/// Coordinates come from the nearest raw pixels, and matches from whole columns: up to so many px off.
constexpr double rounding_px = 1.75;

template <class Rows> void for_bands(int rows, const Rows& work)
{
    in_parallel(static_cast<std::size_t>((rows + band - 1) / band), [&](std::size_t i) {
        const int begin = static_cast<int>(i) * band;
        work(begin, std::min(begin + band, rows));
    });
}

/// Coordinates of a rectified row, of the nearest raw pixels; NaN outside.
VEXO_INLINE void sample_nearest(
    const float* map_x, const float* map_y, const float* raw, cv::Size size, int cols, float* out) noexcept
{
    const auto right = static_cast<float>(size.width - 1), bottom = static_cast<float>(size.height - 1);
    const int width = size.width;
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const float u = map_x[x] > 0.0F ? map_x[x] : 0.0F, v = map_y[x] > 0.0F ? map_y[x] : 0.0F; // NaN: 0
        const float cu = u < right ? u : right, cv = v < bottom ? v : bottom;
        const float column = cu + 0.5F, row = cv + 0.5F; // whole numbers are cut off: the nearest pixel
        const float at = raw[static_cast<int>(row) * width + static_cast<int>(column)];
        out[x] = ((cu == map_x[x]) & (cv == map_y[x])) ? at : none;
    }
}

/// The library's matches whose coordinates differ by at most `agree`; NaN: the others.
VEXO_INLINE void keep_agreeing(
    const float* library, const float* row0, const float* row1, int cols, float agree, float* out) noexcept
{
    const auto last = static_cast<float>(cols - 1);
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const float at = static_cast<float>(x) - library[x] + 0.5F, inside = at < last ? at : last; // NaN: last
        const float apart = row1[static_cast<int>(inside > 0.0F ? inside : 0.0F)] - row0[x];
        out[x] = (apart <= agree) & (apart >= -agree) & (at >= 0.0F) ? library[x] : none;
    }
}

void sample_plain(
    const float* map_x, const float* map_y, const float* raw, cv::Size size, int cols, float* out) noexcept
{
    sample_nearest(map_x, map_y, raw, size, cols, out);
}

void keep_plain(const float* library, const float* row0, const float* row1, int cols, float agree, float* out) noexcept
{
    keep_agreeing(library, row0, row1, cols, agree, out);
}

#if defined(__x86_64__)
VEXO_AVX2_GATHERS void sample_avx2(
    const float* map_x, const float* map_y, const float* raw, cv::Size size, int cols, float* out) noexcept
{
    sample_nearest(map_x, map_y, raw, size, cols, out);
}

VEXO_AVX2_GATHERS void keep_avx2(
    const float* library, const float* row0, const float* row1, int cols, float agree, float* out) noexcept
{
    keep_agreeing(library, row0, row1, cols, agree, out);
}
#else
constexpr auto sample_avx2 = sample_plain;
constexpr auto keep_avx2 = keep_plain;
#endif

/// Matches one row after the other; a thread has one of these.
class RowMatches {
public:
    RowMatches(int cols, const CandidateLimits& limits)
        : _least(static_cast<float>(limits.least_disparity))
        , _most(static_cast<float>(limits.most_disparity))
        , _per_unit(static_cast<float>(limits.unit_px))
        , _differ(static_cast<float>(limits.max_difference))
        , _agree(static_cast<float>(std::max(0.15 * limits.period, rounding_px / limits.unit_px)))
        , _row0(static_cast<std::size_t>(cols))
        , _row1(_row0.size())
    {
    }

    void match(const std::array<cv::Mat, 2>& coordinates, const RectifyingTables& tables, int y, const float* library,
        float* out)
    {
        const int cols = static_cast<int>(_row0.size());
        _sample(coordinates[0], tables[0], y, _row0);
        _sample(coordinates[1], tables[1], y, _row1);
        (Cpu::has_avx2() ? keep_avx2 : keep_plain)(library, _row0.data(), _row1.data(), cols, _agree, out);
        _span();
        bool noted = false;
        for (int x = 0; x < cols; ++x) {
            const float c = _row0[static_cast<std::size_t>(x)];
            if (out[x] == out[x] || !(c >= _low - _differ && c <= _high + _differ)) continue; // also without one
            if (!noted) _note();
            noted = true;
            out[x] = _match(x);
        }
    }

private:
    struct Place {
        int first = -1, last = -1; ///< columns with coordinates of this bin, some px wide
    };

    static void _sample(const cv::Mat& raw, const RectifyingTable& table, int y, std::vector<float>& row)
    {
        (Cpu::has_avx2() ? sample_avx2 : sample_plain)(table.x.ptr<float>(y), table.y.ptr<float>(y), raw.ptr<float>(),
            raw.size(), static_cast<int>(row.size()), row.data());
    }

    /// The least and the largest coordinate of camera 1; the least is the larger of a row without.
    void _span()
    {
        float low = std::numeric_limits<float>::max(), high = -low;
#pragma omp simd reduction(min : low) reduction(max : high)
        for (std::size_t k = 0; k < _row1.size(); ++k) { // comparisons with NaN are false
            low = _row1[k] < low ? _row1[k] : low;
            high = _row1[k] > high ? _row1[k] : high;
        }
        _low = low;
        _high = high;
    }

    /// Enters the columns of camera 1 by their coordinate.
    void _note()
    {
        const auto most = 4.0F * static_cast<float>(_row1.size()); // places: coordinates may err
        _bins = _high > _low ? std::min(_per_unit, most / (_high - _low)) : 1.0F;
        _places.assign(static_cast<std::size_t>((_high - _low) * _bins) + 1, {});
        for (std::size_t k = 0; k < _row1.size(); ++k) {
            if (!(_row1[k] == _row1[k])) continue;
            Place& place = _places[static_cast<std::size_t>((_row1[k] - _low) * _bins)];
            if (place.first < 0) place.first = static_cast<int>(k);
            place.last = static_cast<int>(k);
        }
    }

    float _match(int x) const
    {
        const int k = _nearest(_row0[static_cast<std::size_t>(x)]);
        const auto d = static_cast<float>(x - k);
        return k >= 0 && d >= _least && d <= _most ? d : none;
    }

    /// The column of the nearest coordinate, -1: there is none, or there are several.
    int _nearest(float c) const
    {
        constexpr int apart = 8; // columns: farther ones are of another surface
        const float at = (c - _low) * _bins, count = static_cast<float>(_places.size());
        if (!(at >= -1.0F && at < count + 1.0F)) return -1; // also without a coordinate
        const int middle = static_cast<int>(std::floor(at)), end = static_cast<int>(_places.size());
        int first = static_cast<int>(_row1.size()), last = -1, nearest = -1;
        float least = _differ;
        for (int i = std::max(middle - 1, 0); i < std::min(middle + 2, end); ++i) {
            const Place& place = _places[static_cast<std::size_t>(i)];
            if (place.first < 0) continue;
            first = std::min(first, place.first);
            last = std::max(last, place.last);
            for (const int k : { place.first, place.last }) {
                const float difference = std::abs(_row1[static_cast<std::size_t>(k)] - c);
                if (difference > least) continue;
                least = difference;
                nearest = k;
            }
        }
        return last - first <= apart ? nearest : -1;
    }

    float _least, _most, _per_unit, _differ, _agree;
    float _low = 0.0F, _high = 0.0F, _bins = 1.0F; ///< coordinates of camera 1, places a unit
    std::vector<float> _row0, _row1;
    std::vector<Place> _places;
};

/// The two maps of matches, and what is made of them.
class Chooser {
public:
    Chooser(const cv::Mat& library, const cv::Mat& plain, const CandidateLimits& limits)
        : _library(library)
        , _plain(plain)
        , _apart(static_cast<float>(std::max(rounding_px, 0.15 * limits.period * limits.unit_px)))
    {
    }

    /// Looks at what differs; mostly it is the same, bit by bit.
    void choose_row(int y, float* out, CandidateCounts& counts) const
    {
        constexpr int stretch = 16;
        const float *const l = _library.ptr<float>(y), *const p = _plain.ptr<float>(y);
        const int cols = _library.cols;
        std::copy(l, l + cols, out);
        for (int begin = 0; begin < cols; begin += stretch) {
            const int end = std::min(begin + stretch, cols);
            if (std::memcmp(l + begin, p + begin, static_cast<std::size_t>(end - begin) * sizeof(float)) == 0) continue;
            for (int x = begin; x < end; ++x)
                _choose(y, x, out[x], counts);
        }
    }

private:
    void _choose(int y, int x, float& out, CandidateCounts& counts) const
    {
        const float library = _library.at<float>(y, x), plain = _plain.at<float>(y, x);
        const bool matched = library == library, again = plain == plain;
        if (_same(library, plain) || !(matched || again)) return;
        if (matched)
            out = _better(y, x, library, plain);
        else if (_holds_alone(y, x, plain))
            out = plain;
        const bool is = out == out;
        counts.added += !matched && is ? 1 : 0;
        counts.dropped += matched && !is ? 1 : 0;
        counts.exchanged += matched && is && out != library ? 1 : 0;
    }

    /// Neighbours, and the pixel itself, whose matches lie near a candidate.
    struct Support {
        int both = 0, library = 0, plain = 0;
    };

    bool _same(float library, float plain) const { return std::abs(library - plain) <= _apart; }

    Support _support(int y, int x, float candidate) const
    {
        constexpr int reach = 2;
        constexpr float near = 2.0F; // px
        Support s;
        for (int i = std::max(y - reach, 0); i <= std::min(y + reach, _library.rows - 1); ++i) {
            const float *const l = _library.ptr<float>(i), *const p = _plain.ptr<float>(i);
            for (int j = std::max(x - reach, 0); j <= std::min(x + reach, _library.cols - 1); ++j) {
                const bool near_l = std::abs(l[j] - candidate) <= near, near_p = std::abs(p[j] - candidate) <= near;
                s.library += near_l ? 1 : 0;
                s.plain += near_p ? 1 : 0;
                s.both += near_l && _same(l[j], p[j]) ? 1 : 0;
            }
        }
        return s;
    }

    /// Fewer leave three times as many wrong points beside the silhouettes of a simulated bust.
    bool _holds_alone(int y, int x, float plain) const
    {
        constexpr int enough = 16;
        const Support s = _support(y, x, plain);
        return s.plain >= enough && s.both > 0;
    }

    /// One of the two, either of which may be missing, or neither.
    float _better(int y, int x, float library, float plain) const
    {
        constexpr int least = 10;
        const Support l = _support(y, x, library), p = plain == plain ? _support(y, x, plain) : Support();
        const int of_library = 2 * l.both + l.library, of_plain = 2 * p.both + p.plain;
        if (std::max(of_library, of_plain) < least) return none;
        return of_plain > of_library ? plain : library;
    }

    const cv::Mat &_library, &_plain;
    float _apart; ///< px
};

} // namespace

cv::Mat plain_matches(const std::array<cv::Mat, 2>& coordinates, const RectifyingTables& tables, const cv::Mat& library,
    const CandidateLimits& limits)
{
    cv::Mat plain;
    create_large(plain, library.size(), CV_32F);
    for_bands(plain.rows, [&](int begin, int end) {
        RowMatches rows(plain.cols, limits);
        for (int y = begin; y < end; ++y)
            rows.match(coordinates, tables, y, library.ptr<float>(y), plain.ptr<float>(y));
    });
    return plain;
}

Candidates choose_candidates(const cv::Mat& library, const cv::Mat& plain, const CandidateLimits& limits)
{
    const Chooser chooser(library, plain, limits);
    Candidates chosen;
    create_large(chosen.disparity, library.size(), CV_32F);
    std::vector<CandidateCounts> counts(static_cast<std::size_t>((library.rows + band - 1) / band));
    for_bands(library.rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            chooser.choose_row(y, chosen.disparity.ptr<float>(y), counts[static_cast<std::size_t>(begin / band)]);
    });
    for (const CandidateCounts& c : counts) {
        chosen.counts.exchanged += c.exchanged;
        chosen.counts.added += c.added;
        chosen.counts.dropped += c.dropped;
    }
    return chosen;
}

} // namespace vexo
