#include "matching/row_matcher.h"

#include "base/cpu.h"
#include "matching/line_fits.h"
#include "matching/nearest.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();

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

#if defined(__x86_64__)

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
#endif

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

} // namespace

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

bool RowMatcher::match(const PhaseMapRow& left, const PhaseMapRow& right, int cols, const MatchLimits& limits,
    bool interpolate, double* out) noexcept
{
    const int samples = limits.samples == 3 ? 3 : 5;
    _right_size = list_valid_pixels(right, cols, _right_columns.data(), _right_phase.data());
    if (_right_size < samples) return true;
    _left_size = list_valid_pixels(left, cols, _left_columns.data(), _left_phase.data());
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
    clamp_to_search_tree(phase, n, _thresholds.data());
    return true;
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
