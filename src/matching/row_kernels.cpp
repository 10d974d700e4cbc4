#include "matching/row_kernels.h"

#include "base/cpu.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#define VEXO_AVX2 __attribute__((target("avx2")))
#endif
// Part of every form that uses it: code for other processors in the middle of AVX2 code costs dearly.
#define VEXO_INLINE inline __attribute__((always_inline))

namespace vexo {
namespace {

using Point = cv::Point3_<float>;
constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr int search_window = 17; // values that are looked at together, and the one behind

inline bool is_gapless(const int* columns, int size) noexcept
{
    return columns[size - 1] - columns[0] == size - 1;
}

// --- plain forms -------------------------------------------------------------------------------------------

VEXO_INLINE int list_valid_columns_plain(const uchar* mask, int begin, int cols, int* columns, int count) noexcept
{
    for (int x = begin; x < cols; ++x)
        if (mask[x] == 255) columns[count++] = x;
    return count;
}

/// Columns and phases of the valid pixels from `begin` on, behind `count` others.
VEXO_INLINE int take_valid_plain(
    const PhaseRow& row, int begin, int cols, int* columns, float* phase, int count) noexcept
{
    for (int x = begin; x < cols; ++x)
        if (row.mask[x] == 255) {
            columns[count] = x;
            phase[count++] = row.phase[x];
        }
    return count;
}

/// Lines through N neighbouring entries, from `count` positions on, as LeastSquares::solve(), filed under the position
/// in the middle of each span. Vectors of the processor take several positions at a time; each does the same
/// operations in the same order.
///
/// @tparam gapless  the columns are neighbours: around the middle one, m, they sum up to N m, their squares to
///                  N m^2 + N (N^2 - 1) / 12, and D is N^2 (N^2 - 1) / 12; all of them integers, exact
template <int N, bool gapless>
VEXO_INLINE void fit_spans(const int* columns, const float* phase, int count, double* slope, double* intercept) noexcept
{
    constexpr double n = N, gapless_D = N * N * (N * N - 1) / 12;
    for (int k = 0; k < count; ++k) {
        const double m = columns[0] + k + N / 2;
        double Sx = gapless ? n * m : 0.0, Sxx = gapless ? n * m * m + gapless_D / n : 0.0;
        float sum_y = 0.0F, sum_xy = 0.0F;
        for (int i = 0; i < N; ++i) {
            const int column = gapless ? columns[0] + k + i : columns[k + i];
            const double x = column;
            Sx += gapless ? 0.0 : x;
            Sxx += gapless ? 0.0 : x * x;
            sum_y += phase[k + i];
            sum_xy += static_cast<float>(column) * phase[k + i];
        }
        const double Sy = static_cast<double>(sum_y), Sxy = static_cast<double>(sum_xy);
        const double inverse = 1.0 / (gapless ? gapless_D : n * Sxx - Sx * Sx); // columns differ: never 0
        slope[k + N / 2] = (n * Sxy - Sx * Sy) * inverse;
        intercept[k + N / 2] = (Sxx * Sy - Sx * Sxy) * inverse;
    }
}

template <int N>
VEXO_INLINE void fit_all_spans(
    const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
    constexpr int block = 16;
    int k = 0;
    for (; k + block + N - 1 <= size; k += block) {
        if (is_gapless(columns + k, block + N - 1))
            fit_spans<N, true>(columns + k, phase + k, block, slope + k, intercept + k);
        else
            fit_spans<N, false>(columns + k, phase + k, block, slope + k, intercept + k);
    }
    fit_spans<N, false>(columns + k, phase + k, size - N + 1 - k, slope + k, intercept + k);
}

VEXO_INLINE void fit_spans_of(
    int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
    if (samples == 3)
        fit_all_spans<3>(columns, phase, size, slope, intercept);
    else
        fit_all_spans<5>(columns, phase, size, slope, intercept);
}

/// A right row, as the search reads it.
struct Searched {
    const float* values;     ///< then infinities
    const float* thresholds; ///< see RowMatcher::_clamp_to_search_tree(); the values themselves where they rise
    int last;                ///< position
    bool rising;
};

/// PhaseStereoMatching::_nearest() within the row's range.
VEXO_INLINE int search(float phase, const float* v, int last) noexcept
{
    int lo = 0, hi = last;
    while (hi - lo >= 2) {
        const int mid = lo + (hi - lo) / 2;
        if (v[mid] > phase)
            hi = mid;
        else if (phase > v[mid])
            lo = mid;
        else
            return mid;
    }
    return std::abs(v[hi] - phase) > std::abs(v[lo] - phase) ? lo : hi;
}

/// The last of `v` that is not above the phase, between lo, which is not, and hi, which is.
VEXO_INLINE int last_not_above(float phase, const float* v, int lo, int hi) noexcept
{
    while (hi - lo > 1) {
        const int mid = lo + (hi - lo) / 2;
        (v[mid] <= phase ? lo : hi) = mid;
    }
    return lo;
}

/// PhaseStereoMatching::_nearest(), starting from where the last pixel was found: mostly one step away.
/// @param gap  position of the last threshold not above the last phase, and then of this one
VEXO_INLINE int nearest_from(float phase, const Searched& row, int& gap) noexcept
{
    constexpr int walk = 8; // steps before searching is cheaper
    const float *v = row.values, *thresholds = row.thresholds;
    if (v[0] > phase || phase > v[row.last]) return -1;

    int j = gap;
    for (int steps = 0; thresholds[j + 1] <= phase; ++j)
        if (++steps > walk) {
            j = last_not_above(phase, thresholds, j, row.last + 1);
            break;
        }
    for (int steps = 0; thresholds[j] > phase; --j)
        if (++steps > walk) {
            j = last_not_above(phase, thresholds, 0, j);
            break;
        }
    gap = j;
    if (!row.rising && thresholds[j] == phase) return search(phase, v, row.last);
    return std::abs(v[j + 1] - phase) > std::abs(v[j] - phase) ? j : j + 1;
}

/// A right row and its lines, as evaluation reads them.
struct RightRow {
    const int* columns;
    const float* phase;
    const double *slope, *intercept;
};

VEXO_INLINE double disparity_of(float phase, int x0, int k, const RightRow& right, const MatchLimits& limits) noexcept
{
    if (k < 0 || static_cast<double>(std::abs(phase - right.phase[k])) > limits.max_phase_diff) return limits.invalid;
    double x1 = right.columns[k];
    if (!(right.slope[k] <= 0.0)) x1 = (static_cast<double>(phase) - right.intercept[k]) / right.slope[k];
    const double found = x0 - x1;
    return limits.min_disparity <= found && found <= limits.max_disparity ? found : limits.invalid;
}

VEXO_INLINE void evaluate_plain(const float* phases, const int* columns, const int* nearest, int begin, int size,
    const RightRow& right, const MatchLimits& limits, double* found) noexcept
{
    for (int i = begin; i < size; ++i)
        found[i] = disparity_of(phases[i], columns[i], nearest[i], right, limits);
}

/// The invalid point, down to its bits: hosts compare them.
VEXO_INLINE Point nan_point() noexcept
{
    const uint32_t bits = 0x7FC00000U;
    float nan = 0.0F;
    std::memcpy(&nan, &bits, sizeof nan);
    return { nan, nan, nan };
}

VEXO_INLINE int reproject_plain(
    const cv::Matx44d& H, int row, const double* disparity, int begin, int cols, double invalid, Point* points) noexcept
{
    const Point none = nan_point();
    const double r = row;
    int count = 0;
    for (int c = begin; c < cols; ++c) {
        const double d = disparity[c];
        const auto component = [&](int i) { return ((H(i, 0) * c + H(i, 1) * r) + H(i, 2) * d) + H(i, 3); };
        const double w = component(3);
        if (d == invalid || w == 0.0) {
            points[c] = none;
            continue;
        }
        const double s = 1.0 / w;
        points[c] = { static_cast<float>(component(0) * s), static_cast<float>(component(1) * s),
            static_cast<float>(component(2) * s) };
        ++count;
    }
    return count;
}

// --- forms for AVX2 ----------------------------------------------------------------------------------------

#if defined(__x86_64__)

/// One bit for each of 32 pixels that is valid.
VEXO_AVX2 inline uint32_t valid_bits32(const uchar* mask) noexcept
{
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(mask));
    return static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(bytes, _mm256_set1_epi8(-1))));
}

VEXO_AVX2 int list_valid_columns_avx2(const uchar* mask, int cols, int* columns) noexcept
{
    int count = 0, x = 0;
    for (; x + 32 <= cols; x += 32) {
        auto valid = valid_bits32(mask + x);
        if (valid == 0xFFFFFFFFU) {
            const __m256i first = _mm256_add_epi32(_mm256_set1_epi32(x), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
            for (int i = 0; i < 32; i += 8)
                _mm256_storeu_si256(
                    reinterpret_cast<__m256i*>(columns + count + i), _mm256_add_epi32(first, _mm256_set1_epi32(i)));
            count += 32;
            continue;
        }
        for (; valid != 0; valid &= valid - 1)
            columns[count++] = x + __builtin_ctz(valid);
    }
    return list_valid_columns_plain(mask, x, cols, columns, count);
}

/// 32 columns from x on, all valid.
VEXO_AVX2 inline void take_all32(const float* from, int x, int* columns, float* phase) noexcept
{
    const __m256i first = _mm256_add_epi32(_mm256_set1_epi32(x), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    for (int i = 0; i < 32; i += 8) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(columns + i), _mm256_add_epi32(first, _mm256_set1_epi32(i)));
        _mm256_storeu_ps(phase + i, _mm256_loadu_ps(from + x + i));
    }
}

VEXO_AVX2 int take_valid_avx2(const PhaseRow& row, int cols, int* columns, float* phase) noexcept
{
    int count = 0, x = 0;
    for (; x + 32 <= cols; x += 32) {
        auto valid = valid_bits32(row.mask + x);
        if (valid == 0xFFFFFFFFU) {
            take_all32(row.phase, x, columns + count, phase + count);
            count += 32;
            continue;
        }
        for (; valid != 0; valid &= valid - 1) {
            columns[count] = x + __builtin_ctz(valid);
            phase[count] = row.phase[columns[count]];
            ++count;
        }
    }
    return take_valid_plain(row, x, cols, columns, phase, count);
}

VEXO_AVX2 void fit_spans_avx2(
    int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
    fit_spans_of(samples, columns, phase, size, slope, intercept);
}

// The forms with a mask: those without start from an undefined register, which compilers warn of.
VEXO_AVX2 inline __m256d gather(const double* table, __m128i at) noexcept
{
    const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi32(-1));
    return _mm256_mask_i32gather_pd(_mm256_setzero_pd(), table, at, all, 8);
}

VEXO_AVX2 inline __m128 gather(const float* table, __m128i at) noexcept
{
    return _mm_mask_i32gather_ps(_mm_setzero_ps(), table, at, _mm_castsi128_ps(_mm_set1_epi32(-1)), 4);
}

VEXO_AVX2 inline __m128i gather(const int* table, __m128i at) noexcept
{
    return _mm_mask_i32gather_epi32(_mm_setzero_si128(), table, at, _mm_set1_epi32(-1), 4);
}

VEXO_AVX2 inline __m256 gather8(const float* table, __m256i at) noexcept
{
    const __m256 all = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    return _mm256_mask_i32gather_ps(_mm256_setzero_ps(), table, at, all, 4);
}

/// A window of 16 neighbouring values, the same for eight searches.
struct Window16 {
    __m256 low, high;
};

VEXO_AVX2 inline Window16 window16(const float* values) noexcept
{
    return { _mm256_loadu_ps(values), _mm256_loadu_ps(values + 8) };
}

/// window[at + 8 in_high], at from 0 to 7
VEXO_AVX2 inline __m256 pick(const Window16& window, __m256i at, __m256 in_high) noexcept
{
    return _mm256_blendv_ps(
        _mm256_permutevar8x32_ps(window.low, at), _mm256_permutevar8x32_ps(window.high, at), in_high);
}

/// Eight phases between thresholds[first] and thresholds[first + 16]: the nearest positions, by binary search within
/// that window. @return false when they lie elsewhere, or one has to be searched for
VEXO_AVX2 inline bool nearest8(const float* phases, const Searched& row, int& first, int* positions) noexcept
{
    const float* thresholds = row.thresholds;
    const __m256 phase = _mm256_loadu_ps(phases);
    const __m256 fits = _mm256_and_ps(_mm256_cmp_ps(_mm256_set1_ps(thresholds[first]), phase, _CMP_LE_OQ),
        _mm256_cmp_ps(phase, _mm256_set1_ps(thresholds[first + 16]), _CMP_LT_OQ));
    if (_mm256_movemask_ps(fits) != 0xFF) return false;

    const Window16 window = window16(thresholds + first);
    const __m256 in_high = _mm256_cmp_ps(_mm256_set1_ps(thresholds[first + 8]), phase, _CMP_LE_OQ);
    __m256i at = _mm256_setzero_si256();
    for (int step = 4; step > 0; step /= 2) {
        const __m256i next = _mm256_add_epi32(at, _mm256_set1_epi32(step));
        const __m256 reached = _mm256_cmp_ps(pick(window, next, in_high), phase, _CMP_LE_OQ);
        at = _mm256_blendv_epi8(at, next, _mm256_castps_si256(reached));
    }
    const __m256i eight = _mm256_and_si256(_mm256_castps_si256(in_high), _mm256_set1_epi32(8));
    const __m256i position = _mm256_add_epi32(_mm256_add_epi32(at, eight), _mm256_set1_epi32(first));
    __m256 below = pick(window, at, in_high), above;
    if (row.rising) {
        above = pick(window16(thresholds + first + 1), at, in_high);
    } else {
        if (_mm256_movemask_ps(_mm256_cmp_ps(below, phase, _CMP_EQ_OQ)) != 0) return false;
        below = gather8(row.values, position);
        above = gather8(row.values + 1, position);
    }
    const __m256 magnitude = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    const __m256 to_below = _mm256_and_ps(_mm256_sub_ps(below, phase), magnitude);
    const __m256 to_above = _mm256_and_ps(_mm256_sub_ps(above, phase), magnitude);
    const __m256i keep = _mm256_castps_si256(_mm256_cmp_ps(to_above, to_below, _CMP_GT_OQ)); // else the later one
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(positions),
        _mm256_add_epi32(position, _mm256_add_epi32(keep, _mm256_set1_epi32(1))));
    const __m128i last = _mm256_extracti128_si256(position, 1);
    first = std::max(0, _mm_extract_epi32(last, 3) - 2); // the next eight begin near here
    return true;
}

/// Whether the right row's range holds all eight (bit 0) or at least one (bit 1) of the phases.
VEXO_AVX2 inline int range_of8(const float* phases, const Searched& row) noexcept
{
    const __m256 phase = _mm256_loadu_ps(phases);
    const int in_range
        = _mm256_movemask_ps(_mm256_and_ps(_mm256_cmp_ps(_mm256_set1_ps(row.values[0]), phase, _CMP_LE_OQ),
            _mm256_cmp_ps(phase, _mm256_set1_ps(row.values[row.last]), _CMP_LE_OQ)));
    return (in_range == 0xFF ? 1 : 0) | (in_range != 0 ? 2 : 0);
}

/// @param gap  see nearest_from(); any position to begin with
VEXO_AVX2 inline void find_nearest8(const float* phases, const Searched& row, int& gap, int* positions) noexcept
{
    const int range = range_of8(phases, row);
    if (range == 0) {
        std::fill_n(positions, 8, -1);
        return;
    }
    if (range == 3 && nearest8(phases, row, gap, positions)) return;
    for (int k = 0; k < 8; ++k)
        positions[k] = nearest_from(phases[k], row, gap);
}

/// Where eight pixels are found tells where the next eight are looked for, so each step waits for the one before.
/// Four walks along four parts of the row wait at the same time.
VEXO_AVX2 void find_nearest_avx2(const float* phases, int size, const Searched& row, int* positions) noexcept
{
    constexpr int walks = 4;
    const int part = size / (8 * walks) * 8;
    int gap[walks] = {};
    for (int i = 0; i < part; i += 8)
        for (int walk = 0; walk < walks; ++walk)
            find_nearest8(phases + walk * part + i, row, gap[walk], positions + walk * part + i);
    int i = walks * part;
    for (; i + 8 <= size; i += 8)
        find_nearest8(phases + i, row, gap[walks - 1], positions + i);
    for (; i < size; ++i)
        positions[i] = nearest_from(phases[i], row, gap[walks - 1]);
}

/// Four pixels at a time, as disparity_of().
VEXO_AVX2 void evaluate_avx2(const float* phases, const int* columns, const int* nearest, int size,
    const RightRow& right, const MatchLimits& limits, double* found) noexcept
{
    const __m256d largest_diff = _mm256_set1_pd(limits.max_phase_diff), invalid = _mm256_set1_pd(limits.invalid);
    const __m256d low = _mm256_set1_pd(limits.min_disparity), high = _mm256_set1_pd(limits.max_disparity);
    const __m128 magnitude = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    int i = 0;
    for (; i + 4 <= size; i += 4) {
        const __m128i k = _mm_loadu_si128(reinterpret_cast<const __m128i*>(nearest + i));
        const __m128i at = _mm_max_epi32(k, _mm_setzero_si128());
        const __m128 phase = _mm_loadu_ps(phases + i);
        const __m128 diff = _mm_and_ps(_mm_sub_ps(phase, gather(right.phase, at)), magnitude);
        const __m256d slope = gather(right.slope, at);
        const __m256d shifted = _mm256_sub_pd(_mm256_cvtps_pd(phase), gather(right.intercept, at));
        const __m256d column = _mm256_cvtepi32_pd(gather(right.columns, at));
        const __m256d no_line = _mm256_cmp_pd(slope, _mm256_setzero_pd(), _CMP_LE_OQ);
        const __m256d x1 = _mm256_blendv_pd(_mm256_div_pd(shifted, slope), column, no_line);
        const __m256d x0 = _mm256_cvtepi32_pd(_mm_loadu_si128(reinterpret_cast<const __m128i*>(columns + i)));
        const __m256d d = _mm256_sub_pd(x0, x1);
        const __m256d missing = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(k)); // sign bit
        const __m256d wrong = _mm256_or_pd(missing, _mm256_cmp_pd(_mm256_cvtps_pd(diff), largest_diff, _CMP_GT_OQ));
        const __m256d within = _mm256_and_pd(_mm256_cmp_pd(low, d, _CMP_LE_OQ), _mm256_cmp_pd(d, high, _CMP_LE_OQ));
        _mm256_storeu_pd(found + i, _mm256_blendv_pd(invalid, d, _mm256_andnot_pd(wrong, within)));
    }
    evaluate_plain(phases, columns, nearest, i, size, right, limits, found);
}

/// One component of four points before the division.
VEXO_AVX2 inline __m256d component4(const cv::Matx44d& H, int i, __m256d c, __m256d from_row, __m256d d) noexcept
{
    const __m256d sum = _mm256_add_pd(_mm256_mul_pd(_mm256_set1_pd(H(i, 0)), c), from_row);
    return _mm256_add_pd(_mm256_add_pd(sum, _mm256_mul_pd(_mm256_set1_pd(H(i, 2)), d)), _mm256_set1_pd(H(i, 3)));
}

/// Writes (x, y, z) of four points one after the other.
VEXO_AVX2 inline void store_points4(__m128 x, __m128 y, __m128 z, Point* points) noexcept
{
    auto* out = reinterpret_cast<float*>(points);
    const __m128 xy_low = _mm_unpacklo_ps(x, y);                                    // x0 y0 x1 y1
    const __m128 yz_high = _mm_unpackhi_ps(y, z);                                   // y2 z2 y3 z3
    const __m128 zx = _mm_shuffle_ps(z, x, _MM_SHUFFLE(3, 2, 1, 0));                // z0 z1 x2 x3
    const __m128 z0x1 = _mm_shuffle_ps(zx, xy_low, _MM_SHUFFLE(2, 2, 0, 0));        // z0 z0 x1 x1
    const __m128 y1z1 = _mm_shuffle_ps(xy_low, zx, _MM_SHUFFLE(1, 1, 3, 3));        // y1 y1 z1 z1
    const __m128 x2y2 = _mm_shuffle_ps(zx, yz_high, _MM_SHUFFLE(0, 0, 2, 2));       // x2 x2 y2 y2
    const __m128 z2x3 = _mm_shuffle_ps(yz_high, zx, _MM_SHUFFLE(3, 3, 1, 1));       // z2 z2 x3 x3
    _mm_storeu_ps(out, _mm_shuffle_ps(xy_low, z0x1, _MM_SHUFFLE(2, 0, 1, 0)));      // x0 y0 z0 x1
    _mm_storeu_ps(out + 4, _mm_shuffle_ps(y1z1, x2y2, _MM_SHUFFLE(2, 0, 2, 0)));    // y1 z1 x2 y2
    _mm_storeu_ps(out + 8, _mm_shuffle_ps(z2x3, yz_high, _MM_SHUFFLE(3, 2, 2, 0))); // z2 x3 y3 z3
}

VEXO_AVX2 int reproject_avx2(
    const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid, Point* points) noexcept
{
    const double r = row;
    const __m256d from_row[4] = { _mm256_set1_pd(H(0, 1) * r), _mm256_set1_pd(H(1, 1) * r), _mm256_set1_pd(H(2, 1) * r),
        _mm256_set1_pd(H(3, 1) * r) };
    const __m256d unit = _mm256_set1_pd(1.0), none = _mm256_set1_pd(invalid);
    const __m128 nan = _mm_castsi128_ps(_mm_set1_epi32(0x7FC00000));
    int count = 0, c = 0;
    for (; c + 4 <= cols; c += 4) {
        const __m256d d = _mm256_loadu_pd(disparity + c);
        const __m256d absent = _mm256_cmp_pd(d, none, _CMP_EQ_OQ);
        if (_mm256_movemask_pd(absent) == 0xF) {
            store_points4(nan, nan, nan, points + c);
            continue;
        }
        const __m256d column = _mm256_cvtepi32_pd(_mm_add_epi32(_mm_set1_epi32(c), _mm_setr_epi32(0, 1, 2, 3)));
        const __m256d w = component4(H, 3, column, from_row[3], d);
        const __m256d at_infinity = _mm256_cmp_pd(w, _mm256_setzero_pd(), _CMP_EQ_OQ);
        const __m256d bad = _mm256_or_pd(absent, at_infinity);
        const __m256d s = _mm256_div_pd(unit, _mm256_blendv_pd(w, unit, at_infinity)); // no exception for a host
        const __m128 bad4 = _mm_castsi128_ps(_mm256_castsi256_si128(
            _mm256_permutevar8x32_epi32(_mm256_castpd_si256(bad), _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6))));
        const __m128 x = _mm256_cvtpd_ps(_mm256_mul_pd(component4(H, 0, column, from_row[0], d), s));
        const __m128 y = _mm256_cvtpd_ps(_mm256_mul_pd(component4(H, 1, column, from_row[1], d), s));
        const __m128 z = _mm256_cvtpd_ps(_mm256_mul_pd(component4(H, 2, column, from_row[2], d), s));
        store_points4(
            _mm_blendv_ps(x, nan, bad4), _mm_blendv_ps(y, nan, bad4), _mm_blendv_ps(z, nan, bad4), points + c);
        count += 4 - __builtin_popcount(static_cast<unsigned>(_mm256_movemask_pd(bad)));
    }
    return count + reproject_plain(H, row, disparity, c, cols, invalid, points);
}
#endif

// --- the choice --------------------------------------------------------------------------------------------

int take_valid(const PhaseRow& row, int cols, int* columns, float* phase) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return take_valid_avx2(row, cols, columns, phase);
#endif
    return take_valid_plain(row, 0, cols, columns, phase, 0);
}

void fit_lines(int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2())
        fit_spans_avx2(samples, columns, phase, size, slope, intercept);
    else
#endif
        fit_spans_of(samples, columns, phase, size, slope, intercept);

    // At the ends LeastSquares::check() shifts the span; its middle is then another position.
    const int n = samples == 3 ? 3 : 5, last_begin = size - n;
    const auto take = [&](int k, int begin) {
        slope[k] = slope[begin + n / 2];
        intercept[k] = intercept[begin + n / 2];
    };
    for (int k = 0; k < n / 2; ++k)
        take(k, std::min(k, last_begin));
    for (int k = last_begin + n / 2 + 1; k < size; ++k)
        take(k, last_begin);
}

void find_nearest(const float* phases, int size, const Searched& row, int* positions) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return find_nearest_avx2(phases, size, row, positions);
#endif
    int gap = 0;
    for (int i = 0; i < size; ++i)
        positions[i] = nearest_from(phases[i], row, gap);
}

void evaluate(const float* phases, const int* columns, const int* nearest, int size, const RightRow& right,
    const MatchLimits& limits, double* found) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return evaluate_avx2(phases, columns, nearest, size, right, limits, found);
#endif
    evaluate_plain(phases, columns, nearest, 0, size, right, limits, found);
}

constexpr int block = 8; // columns; mostly they are neighbours

/// Spreads what is listed over its columns of a row.
void put_listed(const int* columns, int size, const double* found, double* row) noexcept
{
    int k = 0;
    for (; k + block <= size; k += block) {
        if (is_gapless(columns + k, block))
            std::memcpy(row + columns[k], found + k, block * sizeof(double));
        else
            for (int i = k; i < k + block; ++i)
                row[columns[i]] = found[i];
    }
    for (; k < size; ++k)
        row[columns[k]] = found[k];
}

bool are_numbers(const float* values, int size) noexcept
{
    int nans = 0;
    for (int k = 0; k < size; ++k)
        nans |= values[k] != values[k];
    return nans == 0;
}

bool are_rising(const float* values, int size) noexcept
{
    int falls = 0;
    for (int k = 0; k + 1 < size; ++k)
        falls |= !(values[k] < values[k + 1]);
    return falls == 0;
}

/// Clamps v[lo + 1 .. hi - 1] to what a binary search between lo and hi can tell apart.
void clamp_between(const float* v, int lo, int hi, float low, float high, float* out) noexcept
{
    if (hi - lo < 2) return;
    const int mid = lo + (hi - lo) / 2;
    const float value = std::max(low, std::min(v[mid], high));
    out[mid] = value;
    clamp_between(v, lo, mid, low, value, out);
    clamp_between(v, mid, hi, value, high, out);
}

} // namespace

int list_valid_columns(const uchar* mask, int cols, int* columns) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return list_valid_columns_avx2(mask, cols, columns);
#endif
    return list_valid_columns_plain(mask, 0, cols, columns, 0);
}

int reproject_row(const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid,
    cv::Point3_<float>* points) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return reproject_avx2(H, row, disparity, cols, invalid, points);
#endif
    return reproject_plain(H, row, disparity, 0, cols, invalid, points);
}

// --- RowMatcher --------------------------------------------------------------------------------------------

void RowMatcher::reserve(int cols)
{
    const auto size = static_cast<std::size_t>(cols);
    for (std::vector<float>* list : { &_right_phase, &_thresholds, &_left_phase, &_line_phase })
        list->resize(size + search_window);
    for (std::vector<int>* list : { &_right_columns, &_left_columns, &_line_columns, &_nearest_position })
        list->resize(size);
    _found.resize(size);
    _right_lines.reserve(size);
    _left_lines.reserve(size);
}

bool RowMatcher::match(const PhaseRow& left, const PhaseRow& right, int cols, const MatchLimits& limits,
    bool interpolate, double* out) noexcept
{
    const int samples = limits.samples == 3 ? 3 : 5;
    _right_size = take_valid(right, cols, _right_columns.data(), _right_phase.data());
    if (_right_size < samples) return true;
    _left_size = take_valid(left, cols, _left_columns.data(), _left_phase.data());
    if (_left_size < (interpolate ? samples : 1)) return true;
    if (!_has_searchable_right() || !are_numbers(_left_phase.data(), _left_size)) return false;
    if (interpolate && !_interpolate(samples)) return false;
    if (_left_size == 0) return true;

    _find_nearest();
    double *slope = _right_lines.slope.data(), *intercept = _right_lines.intercept.data();
    fit_lines(samples, _right_columns.data(), _right_phase.data(), _right_size, slope, intercept);
    const int* columns = _left_columns.data();
    const bool direct = is_gapless(columns, _left_size);
    double* found = direct ? out + columns[0] : _found.data();
    evaluate(_left_phase.data(), columns, _nearest_position.data(), _left_size,
        { _right_columns.data(), _right_phase.data(), slope, intercept }, limits, found);
    if (!direct) put_listed(columns, _left_size, found, out);
    return true;
}

bool RowMatcher::_has_searchable_right() noexcept
{
    const int n = _right_size;
    float* phase = _right_phase.data();
    std::fill_n(phase + n, search_window, infinity); // ends the walk of the search
    if (!(phase[0] > -infinity && phase[n - 1] < infinity)) return false;
    _rising = are_rising(phase, n);
    if (_rising) return true;
    if (!are_numbers(phase, n)) return false;
    _clamp_to_search_tree(n);
    return true;
}

/// A binary search in a row that does not rise everywhere is a search in one that does: an entry outside the range
/// that the entries above it in the search tree leave open decides like the bound of that range next to it. So the
/// row, clamped from the top of the tree down, never falls, and the search ends between the same two entries. Only a
/// phase that equals a threshold has to be searched for.
void RowMatcher::_clamp_to_search_tree(int size) noexcept
{
    const float *phase = _right_phase.data(), low = phase[0], high = phase[size - 1];
    _thresholds[0] = low;
    _thresholds[static_cast<std::size_t>(size) - 1] = high;
    std::fill_n(&_thresholds[static_cast<std::size_t>(size)], search_window, infinity);
    if (low <= high) clamp_between(phase, 0, size - 1, low, high, _thresholds.data());
}

bool RowMatcher::_interpolate(int samples) noexcept
{
    std::swap(_left_columns, _line_columns);
    std::swap(_left_phase, _line_phase);
    fit_lines(samples, _line_columns.data(), _line_phase.data(), _left_size, _left_lines.slope.data(),
        _left_lines.intercept.data());
    _interpolate_left();
    return are_numbers(_left_phase.data(), _left_size);
}

/// Replaces the left pixels by all columns between the first and the last, as far as rising lines reach; the order
/// of steps is that of PhaseStereoMatching::_get_linedisparity_interpo().
void RowMatcher::_interpolate_left() noexcept
{
    const double *slope = _left_lines.slope.data(), *intercept = _left_lines.intercept.data();
    const int *columns = _line_columns.data(), size = _left_size;
    _left_size = 0;
    if (slope[0] <= 0.0) return;
    int k = 0;
    for (int x = columns[0]; x <= columns[size - 1]; ++x) {
        while (k + 1 < size && x >= columns[k + 1]) {
            ++k;
            if (!(slope[k] <= 0.0)) break;
            if (k + 1 >= size) return;
            x = columns[k + 1];
        }
        const auto i = static_cast<std::size_t>(_left_size++);
        _left_columns[i] = x;
        _left_phase[i] = static_cast<float>(x * slope[k] + intercept[k]);
    }
}

void RowMatcher::_find_nearest() noexcept
{
    const float* values = _right_phase.data();
    find_nearest(_left_phase.data(), _left_size,
        { values, _rising ? values : _thresholds.data(), _right_size - 1, _rising }, _nearest_position.data());
}

} // namespace vexo
