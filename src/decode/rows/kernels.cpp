#include "decode/rows/kernels.h"

#include "base/angles.h"
#include "base/cpu.h"
#include "decode/AngleTable.h"
#include "decode/pixel_formulas.h"

#include <algorithm>
#include <limits>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

VEXO_INLINE void valid_body(const uint8_t* __restrict white, const uint8_t* __restrict black, int cols,
    const ByteLimits& limits, uint8_t* __restrict mask)
{
    const ByteLimits l = limits;
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const uint8_t w = white[x];
        const uint8_t b = black[x];
        const auto above = static_cast<uint8_t>(w > b ? w - b : 0);
        const auto below = static_cast<uint8_t>(b > w ? b - w : 0);
        const uint8_t lit = (w >= l.min_white ? 255 : 0) & (w <= l.max_white ? 255 : 0);
        mask[x] = lit & (above >= l.rise ? 255 : 0) & (below <= l.fall ? 255 : 0);
    }
}

/// f > (w + b) / 2 is f > floor((w + b) / 2), as f is whole; the floor is (w & b) + (w ^ b) / 2 and needs no
/// ninth bit. Binary digits are the parity of the gray digits so far.
VEXO_INLINE void code_body(const uint8_t* const* planes, const uint8_t* __restrict white,
    const uint8_t* __restrict black, int cols, uint8_t* __restrict code)
{
    const uint8_t *f0 = planes[0], *f1 = planes[1], *f2 = planes[2], *f3 = planes[3], *f4 = planes[4], *f5 = planes[5],
                  *f6 = planes[6];
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const auto t = static_cast<uint8_t>((white[x] & black[x]) + ((white[x] ^ black[x]) >> 1));
        const uint8_t b0 = f0[x] > t ? 64 : 0;
        const uint8_t b1 = (f1[x] > t ? 32 : 0) ^ (b0 >> 1);
        const uint8_t b2 = (f2[x] > t ? 16 : 0) ^ (b1 >> 1);
        const uint8_t b3 = (f3[x] > t ? 8 : 0) ^ (b2 >> 1);
        const uint8_t b4 = (f4[x] > t ? 4 : 0) ^ (b3 >> 1);
        const uint8_t b5 = (f5[x] > t ? 2 : 0) ^ (b4 >> 1);
        const uint8_t b6 = (f6[x] > t ? 1 : 0) ^ (b5 >> 1);
        code[x] = b0 | b1 | b2 | b3 | b4 | b5 | b6;
    }
}

VEXO_INLINE void phase_body(
    const uint8_t* const* steps, const float* __restrict angles, int cols, float* __restrict phase)
{
    const uint8_t *p0 = steps[0], *p1 = steps[1], *p2 = steps[2], *p3 = steps[3];
#pragma omp simd
    for (int x = 0; x < cols; ++x)
        phase[x] = phase_of_angle(AngleTable::angle_of(angles, p1[x] - p3[x], p2[x] - p0[x]));
}

VEXO_INLINE void rises_body(const uint8_t* __restrict mask, const float* __restrict phase,
    const uint8_t* __restrict code, int cols, uint8_t* __restrict rises, uint8_t* __restrict changes)
{
    rises[0] = changes[0] = 0;
#pragma omp simd
    for (int x = 1; x < cols; ++x) {
        rises[x] = mask[x] & mask[x - 1] & (phase[x] >= phase[x - 1] ? 255 : 0);
        changes[x] = code[x] != code[x - 1] ? 255 : 0;
    }
}

/// Sums are finite and never negative: a factor of 1 or 0 keeps or clears them, where compilers make a branch of a
/// choice.
VEXO_INLINE void join_body(const uint8_t* __restrict mask, const uint8_t* __restrict trusted,
    const uint8_t* __restrict code, const float* __restrict phase, int cols, float* __restrict coordinate,
    uint8_t* __restrict kept)
{
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const auto keep = static_cast<uint8_t>(mask[x] & trusted[x]);
        kept[x] = keep;
        coordinate[x] = (phase[x] + static_cast<float>(code[x])) * static_cast<float>(keep & 1);
    }
}

VEXO_INLINE void position_body(const uint8_t* const* steps, const float* __restrict angles, float offset, int period,
    int cols, float* __restrict position)
{
    const uint8_t *i0 = steps[0], *i1 = steps[1], *i2 = steps[2], *i3 = steps[3];
    const auto px = static_cast<float>(period);
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const float a = AngleTable::angle_of(angles, i3[x] - i1[x], i0[x] - i2[x]);
        position[x] = px * ((a + offset) / two_pi_float);
    }
}

/// Whole px nearest to a difference raised by the longest period, halves up, as the table rounds it.
int rounded(float raised) noexcept
{
    const double half_up = static_cast<double>(raised) + 0.5;
    return static_cast<int>(half_up);
}

/// The table's own checks of two differences against fringe numbers hold for every slot that has any, as the
/// differences make the slot's index: only the third is left, and it is d12 = d1 - d0. What is unresolved gets an
/// infinite coordinate, which no comparison keeps.
void resolve_pixels(const float* const* positions, const uint8_t* mask, const PairSlots& s, int first, int last,
    float* coordinate, uint8_t* kept) noexcept
{
    const auto longest = static_cast<float>(s.longest);
    for (int x = first; x < last; ++x) {
        const float x0 = positions[0][x];
        const float x1 = positions[1][x];
        const float x2 = positions[2][x];
        const int d0 = rounded(x1 - x0 + longest) - s.longest;
        const int d1 = rounded(x2 - x0 + longest) - s.longest;
        const int d12 = rounded(x2 - x1 + longest) - s.longest;
        const int column = s.lower[0] - d0;
        const int row = s.lower[1] - d1;
        const bool known
            = column >= 0 && column < s.range[0] && row >= 0 && row < s.range[1] && d12 == d1 - d0 && mask[x] != 0;
        const float value = known ? (x0 + x1 + x2) * s.scale + s.offsets[row * s.range[0] + column] : s.largest + 1.0F;
        kept[x] = value <= s.largest ? 255 : 0;
        coordinate[x] = value <= s.largest ? value : 0.0F;
    }
}

void resolve_plain(const float* const* positions, const uint8_t* mask, const PairSlots& slots, int cols,
    float* coordinate, uint8_t* kept) noexcept
{
    resolve_pixels(positions, mask, slots, 0, cols, coordinate, kept);
}

#if defined(__x86_64__)
VEXO_AVX2_GATHERS inline __m256i rounded_avx2(__m256 raised) noexcept
{
    const __m256 v = _mm256_max_ps(raised, _mm256_setzero_ps());
    const __m256 whole = _mm256_floor_ps(v);
    const __m256 half = _mm256_cmp_ps(_mm256_sub_ps(v, whole), _mm256_set1_ps(0.5F), _CMP_GE_OQ);
    return _mm256_sub_epi32(_mm256_cvttps_epi32(whole), _mm256_castps_si256(half)); // a true lane is -1
}

/// resolve_plain(), eight pixels at a time; compilers do not find it by themselves.
///
/// Rounding stays in float: with v >= 0 the fraction v - floor(v) is exact, so floor(v) + (fraction >= 0.5) is
/// trunc(v + 0.5) in double. Down to v > -1.5 that gives 0, as 0 here does; lower ones belong to a difference below
/// -longest - 0.5, which no slot has.
VEXO_AVX2_GATHERS void resolve_avx2(const float* const* positions, const uint8_t* mask, const PairSlots& s, int cols,
    float* coordinate, uint8_t* kept) noexcept
{
    const __m256 longest = _mm256_set1_ps(static_cast<float>(s.longest));
    const __m256 nothing = _mm256_set1_ps(std::numeric_limits<float>::infinity());
    const __m256i range0 = _mm256_set1_epi32(s.range[0]);
    // column = lower - d = (lower + longest) - rounded
    const __m256i column_base = _mm256_set1_epi32(s.lower[0] + s.longest);
    const __m256i row_base = _mm256_set1_epi32(s.lower[1] + s.longest);
    const __m256i last_column = _mm256_set1_epi32(s.range[0] - 1);
    const __m256i last_row = _mm256_set1_epi32(s.range[1] - 1);
    const __m256i longest_px = _mm256_set1_epi32(s.longest);
    int x = 0;
    for (; x + 8 <= cols; x += 8) {
        const __m256 x0 = _mm256_loadu_ps(positions[0] + x);
        const __m256 x1 = _mm256_loadu_ps(positions[1] + x);
        const __m256 x2 = _mm256_loadu_ps(positions[2] + x);
        const __m256 v0 = _mm256_add_ps(_mm256_sub_ps(x1, x0), longest);
        const __m256 v1 = _mm256_add_ps(_mm256_sub_ps(x2, x0), longest);
        const __m256 v12 = _mm256_add_ps(_mm256_sub_ps(x2, x1), longest);
        const __m256i r0 = rounded_avx2(v0); // d0 + longest
        const __m256i r1 = rounded_avx2(v1);
        const __m256i r12 = rounded_avx2(v12);
        const __m256i column = _mm256_sub_epi32(column_base, r0);
        const __m256i row = _mm256_sub_epi32(row_base, r1);

        // d12 = d1 - d0; column and row within their ranges, as unsigned numbers; a pixel of the mask
        const __m256i third = _mm256_cmpeq_epi32(r12, _mm256_add_epi32(_mm256_sub_epi32(r1, r0), longest_px));
        const __m256i inside = _mm256_and_si256(_mm256_cmpeq_epi32(_mm256_min_epu32(column, last_column), column),
            _mm256_cmpeq_epi32(_mm256_min_epu32(row, last_row), row));
        const __m256i usable
            = _mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(mask + x))); // 255 is -1
        const __m256 lowest = _mm256_min_ps(_mm256_min_ps(v0, v1), v12);
        const __m256 in_range = _mm256_cmp_ps(lowest, _mm256_set1_ps(-1.5F), _CMP_GT_OQ);
        const __m256 known
            = _mm256_and_ps(_mm256_castsi256_ps(_mm256_and_si256(_mm256_and_si256(third, inside), usable)), in_range);

        const __m256i slot = _mm256_add_epi32(column, _mm256_mullo_epi32(row, range0));
        const __m256 offset = _mm256_mask_i32gather_ps(nothing, s.offsets, slot, known, 4);
        const __m256 sum = _mm256_add_ps(_mm256_add_ps(x0, x1), x2);
        const __m256 value = _mm256_add_ps(_mm256_mul_ps(sum, _mm256_set1_ps(s.scale)), offset);
        const __m256 keep = _mm256_cmp_ps(value, _mm256_set1_ps(s.largest), _CMP_LE_OQ);
        _mm256_storeu_ps(coordinate + x, _mm256_and_ps(value, keep));
        const __m256i bits = _mm256_castps_si256(keep);
        const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(bits), _mm256_extracti128_si256(bits, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(kept + x), _mm_packs_epi16(words, words));
    }
    resolve_pixels(positions, mask, s, x, cols, coordinate, kept);
}
#endif

VEXO_INLINE void falls_body(const float* __restrict v, int cols, uint8_t* __restrict falls)
{
    falls[0] = 0;
#pragma omp simd
    for (int x = 1; x < cols; ++x)
        falls[x] = v[x - 1] > v[x] ? 255 : 0;
}

#if defined(__x86_64__)
constexpr auto resolve_avx512 = resolve_avx2;
#endif

// NOLINTBEGIN(bugprone-macro-parentheses)
#define VEXO_ROW_KERNELS(SET, TARGET)                                                                                  \
    namespace SET {                                                                                                    \
    TARGET void valid(const uint8_t* w, const uint8_t* b, int cols, const ByteLimits& l, uint8_t* mask)                \
    {                                                                                                                  \
        valid_body(w, b, cols, l, mask);                                                                               \
    }                                                                                                                  \
    TARGET void code(const uint8_t* const* f, const uint8_t* w, const uint8_t* b, int cols, uint8_t* out)              \
    {                                                                                                                  \
        code_body(f, w, b, cols, out);                                                                                 \
    }                                                                                                                  \
    TARGET void phase(const uint8_t* const* steps, const float* angles, int cols, float* out)                          \
    {                                                                                                                  \
        phase_body(steps, angles, cols, out);                                                                          \
    }                                                                                                                  \
    TARGET void rises(const uint8_t* m, const float* p, const uint8_t* c, int cols, uint8_t* r, uint8_t* changes)      \
    {                                                                                                                  \
        rises_body(m, p, c, cols, r, changes);                                                                         \
    }                                                                                                                  \
    TARGET void join(                                                                                                  \
        const uint8_t* m, const uint8_t* t, const uint8_t* c, const float* p, int cols, float* out, uint8_t* kept)     \
    {                                                                                                                  \
        join_body(m, t, c, p, cols, out, kept);                                                                        \
    }                                                                                                                  \
    TARGET void position(const uint8_t* const* steps, const float* angles, float o, int T, int cols, float* out)       \
    {                                                                                                                  \
        position_body(steps, angles, o, T, cols, out);                                                                 \
    }                                                                                                                  \
    TARGET void falls(const float* v, int cols, uint8_t* out)                                                          \
    {                                                                                                                  \
        falls_body(v, cols, out);                                                                                      \
    }                                                                                                                  \
    constexpr RowKernels set { valid, code, phase, rises, join, position, resolve_##SET, falls };                      \
    }

VEXO_FORMS(VEXO_ROW_KERNELS)
// NOLINTEND(bugprone-macro-parentheses)

} // namespace

ByteLimits byte_limits(int min_contrast, int max_white, int min_white) noexcept
{
    constexpr ByteLimits nothing { 255, 0, 0, 0 };
    if (min_contrast > 255 || max_white < 0 || min_white > 255) return nothing;
    const auto byte = [](int value) { return static_cast<uint8_t>(std::clamp(value, 0, 255)); };
    return { byte(min_white), byte(max_white), byte(min_contrast), byte(-std::max(min_contrast, -255)) };
}

const RowKernels& row_kernels() noexcept
{
    return VEXO_FORM_OF(set);
}

} // namespace vexo
