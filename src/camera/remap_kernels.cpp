#include "camera/remap_kernels.h"

#include "camera/cpu.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

constexpr int fraction_bits = 5; // of a position
constexpr int one = 1 << fraction_bits;

/// Position in a source image, to 1/32 px.
struct Position {
    int x, y;   ///< px
    int fx, fy; ///< fraction, 1/32 px
};

Position position_of(float map_x, float map_y) noexcept
{
    const int ix = cvRound(map_x * one), iy = cvRound(map_y * one); // not a number, or too large: INT_MIN
    return { ix >> fraction_bits, iy >> fraction_bits, ix & (one - 1), iy & (one - 1) };
}

/// Whether all four neighbours exist.
bool is_inside(const Position& p, cv::Size size) noexcept
{
    return p.x >= 0 && p.y >= 0 && p.x < size.width - 1 && p.y < size.height - 1;
}

template <class T> const T* at(const RemapImage<T>& image, int x, int y) noexcept
{
    const auto* row = reinterpret_cast<const uchar*>(image.src) + static_cast<std::size_t>(y) * image.step;
    return reinterpret_cast<const T*>(row) + x;
}

uchar sample(const RemapImage<uchar>& image, const Position& p) noexcept
{
    const uchar *top = at(image, p.x, p.y), *bottom = at(image, p.x, p.y + 1);
    const int upper = top[0] * (one - p.fx) + top[1] * p.fx;
    const int lower = bottom[0] * (one - p.fx) + bottom[1] * p.fx;
    return static_cast<uchar>((upper * (one - p.fy) + lower * p.fy + one * one / 2) / (one * one));
}

float sample(const RemapImage<float>& image, const Position& p) noexcept
{
    constexpr float unit = 1.0F / one;
    const float fx = static_cast<float>(p.fx) * unit, fy = static_cast<float>(p.fy) * unit;
    const float *top = at(image, p.x, p.y), *bottom = at(image, p.x, p.y + 1);
    return top[0] * ((1.0F - fy) * (1.0F - fx)) + top[1] * ((1.0F - fy) * fx) + bottom[0] * (fy * (1.0F - fx))
        + bottom[1] * (fy * fx);
}

/// The readable form: one pixel after the other.
void remap_pixels(const float* map_x, const float* map_y, int begin, int end, cv::Size size,
    const RemapImage<uchar>& bytes, const RemapImage<float>& floats) noexcept
{
    for (int c = begin; c < end; ++c) {
        const Position p = position_of(map_x[c], map_y[c]);
        const bool inside = is_inside(p, size);
        if (bytes.src != nullptr) bytes.dst[c] = inside ? sample(bytes, p) : bytes.fill;
        if (floats.src != nullptr) floats.dst[c] = inside ? sample(floats, p) : floats.fill;
    }
}

#if defined(__x86_64__)
#define VEXO_AVX2 __attribute__((target("avx2")))

/// Eight positions at once, and what their source pixels have in common.
struct Positions8 {
    __m256i x, y, fx, fy;
    __m256i from_first; ///< x less that of the first
    int first_x, first_y;
    bool one_row; ///< all in the same source row
    int spread;   ///< largest from_first; above 255 where one is negative
};

VEXO_AVX2 inline int largest(__m256i v) noexcept
{
    __m128i m = _mm_max_epu32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    m = _mm_max_epu32(m, _mm_shuffle_epi32(m, _MM_SHUFFLE(1, 0, 3, 2)));
    m = _mm_max_epu32(m, _mm_shuffle_epi32(m, _MM_SHUFFLE(2, 3, 0, 1)));
    const int value = _mm_cvtsi128_si32(m);
    return value < 0 ? 256 : value;
}

VEXO_AVX2 inline Positions8 positions8_of(const float* map_x, const float* map_y) noexcept
{
    const __m256 scale = _mm256_set1_ps(one);
    const __m256i fraction = _mm256_set1_epi32(one - 1);
    const __m256i ix = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_loadu_ps(map_x), scale));
    const __m256i iy = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_loadu_ps(map_y), scale));
    Positions8 p;
    p.x = _mm256_srai_epi32(ix, fraction_bits);
    p.y = _mm256_srai_epi32(iy, fraction_bits);
    p.fx = _mm256_and_si256(ix, fraction);
    p.fy = _mm256_and_si256(iy, fraction);
    p.first_x = _mm_cvtsi128_si32(_mm256_castsi256_si128(p.x));
    p.first_y = _mm_cvtsi128_si32(_mm256_castsi256_si128(p.y));
    p.from_first = _mm256_sub_epi32(p.x, _mm256_set1_epi32(p.first_x));
    p.one_row = _mm256_movemask_epi8(_mm256_cmpeq_epi32(p.y, _mm256_set1_epi32(p.first_y))) == -1;
    p.spread = largest(p.from_first);
    return p;
}

/// One bit for each position with four neighbours.
VEXO_AVX2 inline int inside_bits(const Positions8& p, cv::Size size) noexcept
{
    const __m256i below = _mm256_set1_epi32(-1);
    const __m256i x
        = _mm256_and_si256(_mm256_cmpgt_epi32(p.x, below), _mm256_cmpgt_epi32(_mm256_set1_epi32(size.width - 1), p.x));
    const __m256i y
        = _mm256_and_si256(_mm256_cmpgt_epi32(p.y, below), _mm256_cmpgt_epi32(_mm256_set1_epi32(size.height - 1), p.y));
    return _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_and_si256(x, y)));
}

/// Weighs eight pairs of bytes, (left, right) of the upper and of the lower row.
VEXO_AVX2 inline void store_bytes8(const Positions8& p, __m128i upper, __m128i lower, uchar* dst) noexcept
{
    const __m256i pair = _mm256_add_epi32(_mm256_mullo_epi32(p.fx, _mm256_set1_epi32(255)), _mm256_set1_epi32(one));
    const __m128i x_weights = _mm_packs_epi32(_mm256_castsi256_si128(pair), _mm256_extracti128_si256(pair, 1));
    const __m256i y_weights = _mm256_or_si256(
        _mm256_sub_epi32(_mm256_set1_epi32(one), p.fy), _mm256_slli_epi32(p.fy, 16)); // (1 - fy, fy) as 16-bit pairs
    const __m128i u = _mm_maddubs_epi16(upper, x_weights), l = _mm_maddubs_epi16(lower, x_weights);
    const __m256i rows
        = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_unpacklo_epi16(u, l)), _mm_unpackhi_epi16(u, l), 1);
    const __m256i sum = _mm256_add_epi32(_mm256_madd_epi16(rows, y_weights), _mm256_set1_epi32(one * one / 2));
    const __m256i grey = _mm256_srli_epi32(sum, 2 * fraction_bits);
    const __m128i words = _mm_packus_epi32(_mm256_castsi256_si128(grey), _mm256_extracti128_si256(grey, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), _mm_packus_epi16(words, words));
}

/// From one row pair, the sources within 16 bytes.
VEXO_AVX2 inline void near_bytes8(const Positions8& p, const RemapImage<uchar>& image, uchar* dst) noexcept
{
    const __m256i pick = _mm256_add_epi32(
        _mm256_mullo_epi32(p.from_first, _mm256_set1_epi32(257)), _mm256_set1_epi32(256)); // (i, i + 1) as bytes
    const __m128i control = _mm_packs_epi32(_mm256_castsi256_si128(pick), _mm256_extracti128_si256(pick, 1));
    const uchar *top = at(image, p.first_x, p.first_y), *bottom = at(image, p.first_x, p.first_y + 1);
    const __m128i upper = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(top)), control);
    const __m128i lower = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bottom)), control);
    store_bytes8(p, upper, lower, dst);
}

VEXO_AVX2 inline void store_floats8(
    const Positions8& p, __m256 top0, __m256 top1, __m256 bottom0, __m256 bottom1, float* dst) noexcept
{
    const __m256 unit = _mm256_set1_ps(1.0F / one), whole = _mm256_set1_ps(1.0F);
    const __m256 fx = _mm256_mul_ps(_mm256_cvtepi32_ps(p.fx), unit), fy = _mm256_mul_ps(_mm256_cvtepi32_ps(p.fy), unit);
    const __m256 gx = _mm256_sub_ps(whole, fx), gy = _mm256_sub_ps(whole, fy);
    __m256 sum = _mm256_mul_ps(top0, _mm256_mul_ps(gy, gx));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(top1, _mm256_mul_ps(gy, fx)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(bottom0, _mm256_mul_ps(fy, gx)));
    sum = _mm256_add_ps(sum, _mm256_mul_ps(bottom1, _mm256_mul_ps(fy, fx)));
    _mm256_storeu_ps(dst, sum);
}

/// From one row pair, the sources within 9 floats.
VEXO_AVX2 inline void near_floats8(const Positions8& p, const RemapImage<float>& image, float* dst) noexcept
{
    const float *top = at(image, p.first_x, p.first_y), *bottom = at(image, p.first_x, p.first_y + 1);
    store_floats8(p, _mm256_permutevar8x32_ps(_mm256_loadu_ps(top), p.from_first),
        _mm256_permutevar8x32_ps(_mm256_loadu_ps(top + 1), p.from_first),
        _mm256_permutevar8x32_ps(_mm256_loadu_ps(bottom), p.from_first),
        _mm256_permutevar8x32_ps(_mm256_loadu_ps(bottom + 1), p.from_first), dst);
}

/// From anywhere: pairs of neighbours, one after the other.
VEXO_AVX2 inline void far_bytes8(
    const Positions8& p, const int* x, const int* y, const RemapImage<uchar>& image, uchar* dst) noexcept
{
    alignas(16) uint16_t upper[8], lower[8];
    for (int i = 0; i < 8; ++i) {
        std::memcpy(&upper[i], at(image, x[i], y[i]), 2);
        std::memcpy(&lower[i], at(image, x[i], y[i] + 1), 2);
    }
    store_bytes8(p, _mm_load_si128(reinterpret_cast<const __m128i*>(upper)),
        _mm_load_si128(reinterpret_cast<const __m128i*>(lower)), dst);
}

VEXO_AVX2 inline __m128i two_pairs(const RemapImage<float>& image, int x0, int y0, int x1, int y1) noexcept
{
    int64_t a, b;
    std::memcpy(&a, at(image, x0, y0), sizeof a);
    std::memcpy(&b, at(image, x1, y1), sizeof b);
    return _mm_set_epi64x(b, a);
}

/// Left and right neighbours of eight positions; `dy` 0: of the upper row, 1: of the lower.
VEXO_AVX2 inline void far_pairs8(
    const RemapImage<float>& image, const int* x, const int* y, int dy, __m256& left, __m256& right) noexcept
{
    const __m128i p01 = two_pairs(image, x[0], y[0] + dy, x[1], y[1] + dy);
    const __m128i p23 = two_pairs(image, x[2], y[2] + dy, x[3], y[3] + dy);
    const __m128i p45 = two_pairs(image, x[4], y[4] + dy, x[5], y[5] + dy);
    const __m128i p67 = two_pairs(image, x[6], y[6] + dy, x[7], y[7] + dy);
    const __m256 a = _mm256_castsi256_ps(_mm256_set_m128i(p45, p01)),
                 b = _mm256_castsi256_ps(_mm256_set_m128i(p67, p23));
    left = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
    right = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

VEXO_AVX2 inline void far_floats8(
    const Positions8& p, const int* x, const int* y, const RemapImage<float>& image, float* dst) noexcept
{
    __m256 top0, top1, bottom0, bottom1;
    far_pairs8(image, x, y, 0, top0, top1);
    far_pairs8(image, x, y, 1, bottom0, bottom1);
    store_floats8(p, top0, top1, bottom0, bottom1, dst);
}

/// Eight pixels at a time. Mostly their sources lie side by side in one pair of rows and come with one load each;
/// the borders of the source are for remap_pixels().
template <bool have_bytes, bool have_floats>
VEXO_AVX2 void remap_row_avx2(const float* map_x, const float* map_y, int cols, cv::Size size,
    const RemapImage<uchar>& bytes, const RemapImage<float>& floats) noexcept
{
    int c = 0;
    for (; c + 8 <= cols; c += 8) {
        const Positions8 p = positions8_of(map_x + c, map_y + c);
        const int inside = inside_bits(p, size);
        if (inside == 0) {
            if (have_bytes) std::fill_n(bytes.dst + c, 8, bytes.fill);
            if (have_floats) std::fill_n(floats.dst + c, 8, floats.fill);
            continue;
        }
        if (inside != 0xFF) {
            remap_pixels(map_x, map_y, c, c + 8, size, bytes, floats);
            continue;
        }
        const int room = size.width - p.first_x; // pixels that can be read from the first on
        const bool bytes_near = p.one_row && p.spread <= 14 && room >= 16;
        const bool floats_near = p.one_row && p.spread <= 7 && room >= 9;
        alignas(32) int x[8], y[8];
        if ((have_bytes && !bytes_near) || (have_floats && !floats_near)) {
            _mm256_store_si256(reinterpret_cast<__m256i*>(x), p.x);
            _mm256_store_si256(reinterpret_cast<__m256i*>(y), p.y);
        }
        if (have_bytes) {
            if (bytes_near)
                near_bytes8(p, bytes, bytes.dst + c);
            else
                far_bytes8(p, x, y, bytes, bytes.dst + c);
        }
        if (have_floats) {
            if (floats_near)
                near_floats8(p, floats, floats.dst + c);
            else
                far_floats8(p, x, y, floats, floats.dst + c);
        }
    }
    remap_pixels(map_x, map_y, c, cols, size, bytes, floats);
}
#undef VEXO_AVX2
#endif

} // namespace

void remap_row(const float* map_x, const float* map_y, int cols, cv::Size size, const RemapImage<uchar>& bytes,
    const RemapImage<float>& floats) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) {
        if (bytes.src != nullptr && floats.src != nullptr)
            return remap_row_avx2<true, true>(map_x, map_y, cols, size, bytes, floats);
        if (bytes.src != nullptr) return remap_row_avx2<true, false>(map_x, map_y, cols, size, bytes, floats);
        return remap_row_avx2<false, true>(map_x, map_y, cols, size, bytes, floats);
    }
#endif
    remap_pixels(map_x, map_y, 0, cols, size, bytes, floats);
}

} // namespace vexo
