#include "matching/valid_columns.h"

#include "base/cpu.h"

#include <cstdint>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

VEXO_INLINE int list_valid_columns_plain(const uchar* mask, int begin, int cols, int* columns, int count) noexcept
{
    for (int x = begin; x < cols; ++x)
        if (mask[x] == 255) columns[count++] = x;
    return count;
}

/// Columns and phases of the valid pixels from `begin` on, after `count` others.
VEXO_INLINE int list_valid_pixels_plain(
    const PhaseMapRow& row, int begin, int cols, int* columns, float* phase, int count) noexcept
{
    for (int x = begin; x < cols; ++x)
        if (row.mask[x] == 255) {
            columns[count] = x;
            phase[count++] = row.phase[x];
        }
    return count;
}

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
VEXO_AVX2 inline void list_all32(const float* from, int x, int* columns, float* phase) noexcept
{
    const __m256i first = _mm256_add_epi32(_mm256_set1_epi32(x), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
    for (int i = 0; i < 32; i += 8) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(columns + i), _mm256_add_epi32(first, _mm256_set1_epi32(i)));
        _mm256_storeu_ps(phase + i, _mm256_loadu_ps(from + x + i));
    }
}

VEXO_AVX2 int list_valid_pixels_avx2(const PhaseMapRow& row, int cols, int* columns, float* phase) noexcept
{
    int count = 0, x = 0;
    for (; x + 32 <= cols; x += 32) {
        auto valid = valid_bits32(row.mask + x);
        if (valid == 0xFFFFFFFFU) {
            list_all32(row.phase, x, columns + count, phase + count);
            count += 32;
            continue;
        }
        for (; valid != 0; valid &= valid - 1) {
            columns[count] = x + __builtin_ctz(valid);
            phase[count] = row.phase[columns[count]];
            ++count;
        }
    }
    return list_valid_pixels_plain(row, x, cols, columns, phase, count);
}
#endif

} // namespace

int list_valid_columns(const uchar* mask, int cols, int* columns) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return list_valid_columns_avx2(mask, cols, columns);
#endif
    return list_valid_columns_plain(mask, 0, cols, columns, 0);
}

int list_valid_pixels(const PhaseMapRow& row, int cols, int* columns, float* phase) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return list_valid_pixels_avx2(row, cols, columns, phase);
#endif
    return list_valid_pixels_plain(row, 0, cols, columns, phase, 0);
}

} // namespace vexo
