#include "matching/nearest.h"

#include "base/cpu.h"

#include <algorithm>
#include <cmath>
#include <limits>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

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

#if defined(__x86_64__)

// The form with a mask: that without starts from an undefined register, which compilers warn of.
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

/// Where eight pixels are found says where the next eight are looked for, so each step waits for the one before.
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
#endif

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

void find_nearest(const float* phases, int size, const Searched& row, int* positions) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return find_nearest_avx2(phases, size, row, positions);
#endif
    int gap = 0;
    for (int i = 0; i < size; ++i)
        positions[i] = nearest_from(phases[i], row, gap);
}

void clamp_to_search_tree(const float* phase, int size, float* thresholds) noexcept
{
    const float low = phase[0], high = phase[size - 1];
    thresholds[0] = low;
    thresholds[size - 1] = high;
    std::fill_n(thresholds + size, search_window, std::numeric_limits<float>::infinity());
    if (low <= high) clamp_between(phase, 0, size - 1, low, high, thresholds);
}

} // namespace vexo
