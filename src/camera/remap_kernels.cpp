#include "camera/remap_kernels.h"

#include "base/cpu.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

constexpr int fraction_bits = 5; // in a position
constexpr int one = 1 << fraction_bits;

/// Position in a source image, to 1/32 px.
struct Position {
    int x, y;   ///< px
    int fx, fy; ///< fraction, 1/32 px
};

/// Rounded to even. What is not a number, or too large, is far outside: cvRound() gives INT_MIN for it on x86 alone.
VEXO_INLINE int in_fractions(float px) noexcept
{
    const float scaled = px * one;
    return std::fabs(scaled) < 0x1p31F ? cvRound(scaled) : INT_MIN;
}

VEXO_INLINE Position position_of(float map_x, float map_y) noexcept
{
    const int ix = in_fractions(map_x), iy = in_fractions(map_y);
    return { ix >> fraction_bits, iy >> fraction_bits, ix & (one - 1), iy & (one - 1) };
}

/// Whether all four neighbours exist.
VEXO_INLINE bool is_inside(const Position& p, cv::Size size) noexcept
{
    return p.x >= 0 && p.y >= 0 && p.x < size.width - 1 && p.y < size.height - 1;
}

template <class T> VEXO_INLINE const T* at(const RemapImage<T>& image, int x, int y) noexcept
{
    const auto* row = reinterpret_cast<const uchar*>(image.src) + static_cast<std::size_t>(y) * image.step;
    return reinterpret_cast<const T*>(row) + x;
}

VEXO_INLINE uchar sample(const RemapImage<uchar>& image, const Position& p) noexcept
{
    const uchar *top = at(image, p.x, p.y), *bottom = at(image, p.x, p.y + 1);
    const int upper = top[0] * (one - p.fx) + top[1] * p.fx;
    const int lower = bottom[0] * (one - p.fx) + bottom[1] * p.fx;
    return static_cast<uchar>((upper * (one - p.fy) + lower * p.fy + one * one / 2) / (one * one));
}

VEXO_INLINE float sample(const RemapImage<float>& image, const Position& p) noexcept
{
    constexpr float unit = 1.0F / one;
    const float fx = static_cast<float>(p.fx) * unit, fy = static_cast<float>(p.fy) * unit;
    const float *top = at(image, p.x, p.y), *bottom = at(image, p.x, p.y + 1);
    return top[0] * ((1.0F - fy) * (1.0F - fx)) + top[1] * ((1.0F - fy) * fx) + bottom[0] * (fy * (1.0F - fx))
        + bottom[1] * (fy * fx);
}

template <class T>
VEXO_INLINE void put_pixel(const RemapImage<T>& image, int c, const Position& p, bool inside) noexcept
{
    if (image.src != nullptr) image.dst[c] = inside ? sample(image, p) : image.fill;
}

/// The readable form: one pixel after the other.
VEXO_INLINE void remap_pixels(
    const float* map_x, const float* map_y, int begin, int end, cv::Size size, const RemapImages& images) noexcept
{
    for (int c = begin; c < end; ++c) {
        const Position p = position_of(map_x[c], map_y[c]);
        const bool inside = is_inside(p, size);
        put_pixel(images.bytes, c, p, inside);
        put_pixel(images.floats, c, p, inside);
        put_pixel(images.more_bytes, c, p, inside);
    }
}

#if defined(__x86_64__)

/// Eight positions at once, and where they lie as seen from the first.
struct Positions8 {
    __m256i x, y, fx, fy;
    int left, top;  ///< the first position; `top` may be one less
    __m256i dx, dy; ///< x - left, y - top
};

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
    p.left = _mm_cvtsi128_si32(_mm256_castsi256_si128(p.x));
    p.top = _mm_cvtsi128_si32(_mm256_castsi256_si128(p.y));
    p.dx = _mm256_sub_epi32(p.x, _mm256_broadcastd_epi32(_mm256_castsi256_si128(p.x)));
    p.dy = _mm256_sub_epi32(p.y, _mm256_broadcastd_epi32(_mm256_castsi256_si128(p.y)));
    return p;
}

/// Whether all eight lie in `rows` neighbouring rows, up to `spread` px to the right of the first, and `window` pixels
/// can be read from the first on in all source rows. Then all have four neighbours: window >= spread + 2.
VEXO_AVX2 inline bool are_near(const Positions8& p, cv::Size size, int rows, int spread, int window) noexcept
{
    if (p.left < 0 || p.top < 0 || p.left > size.width - window || p.top >= size.height - rows) return false;
    const __m256i close = _mm256_and_si256(_mm256_cmpeq_epi32(_mm256_min_epu32(p.dx, _mm256_set1_epi32(spread)), p.dx),
        _mm256_cmpeq_epi32(_mm256_min_epu32(p.dy, _mm256_set1_epi32(rows - 1)), p.dy));
    return _mm256_movemask_ps(_mm256_castsi256_ps(close)) == 0xFF;
}

/// The same positions, seen from the row above.
VEXO_AVX2 inline Positions8 from_above(Positions8 p) noexcept
{
    p.top -= 1;
    p.dy = _mm256_add_epi32(p.dy, _mm256_set1_epi32(1));
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

/// The low halves of eight 32-bit numbers that fit into them.
VEXO_AVX2 inline __m128i words(__m256i v) noexcept
{
    return _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
}

/// Weighs eight pairs of bytes, (left, right) of the upper and of the lower row.
VEXO_AVX2 inline void store_bytes8(const Positions8& p, __m128i upper, __m128i lower, uchar* dst) noexcept
{
    // (32 - fx, fx) as pairs of bytes, (32 - fy, fy) as pairs of words
    const __m128i x_weights = _mm_add_epi16(_mm_mullo_epi16(words(p.fx), _mm_set1_epi16(255)), _mm_set1_epi16(one));
    const __m256i y_weights
        = _mm256_add_epi32(_mm256_sub_epi32(_mm256_slli_epi32(p.fy, 16), p.fy), _mm256_set1_epi32(one));
    const __m128i u = _mm_maddubs_epi16(upper, x_weights), l = _mm_maddubs_epi16(lower, x_weights);
    const __m256i rows = _mm256_set_m128i(_mm_unpackhi_epi16(u, l), _mm_unpacklo_epi16(u, l));
    const __m256i sum = _mm256_add_epi32(_mm256_madd_epi16(rows, y_weights), _mm256_set1_epi32(one * one / 2));
    const __m128i grey = words(_mm256_srli_epi32(sum, 2 * fraction_bits));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), _mm_packus_epi16(grey, grey));
}

VEXO_AVX2 inline __m128i load16(const uchar* pixels) noexcept
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels));
}

/// Sources that are near, in one or two rows: one load a source row.
template <int rows>
VEXO_AVX2 inline void near_bytes8(const Positions8& p, const RemapImage<uchar>& image, uchar* dst) noexcept
{
    const __m128i pick // (i, i + 1) as bytes
        = _mm_add_epi16(_mm_mullo_epi16(words(p.dx), _mm_set1_epi16(257)), _mm_set1_epi16(256));
    const uchar* top = at(image, p.left, p.top);
    const __m128i row0 = _mm_shuffle_epi8(load16(top), pick);
    const __m128i row1 = _mm_shuffle_epi8(load16(top + image.step), pick);
    if (rows == 1) return store_bytes8(p, row0, row1, dst);
    const __m128i row2 = _mm_shuffle_epi8(load16(top + 2 * image.step), pick);
    const __m128i below = _mm_cmpgt_epi16(words(p.dy), _mm_setzero_si128());
    store_bytes8(p, _mm_blendv_epi8(row0, row1, below), _mm_blendv_epi8(row1, row2, below), dst);
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

struct Pair8 {
    __m256 left, right;
};

VEXO_AVX2 inline Pair8 pick8(const float* pixels, __m256i positions) noexcept
{
    return { _mm256_permutevar8x32_ps(_mm256_loadu_ps(pixels), positions),
        _mm256_permutevar8x32_ps(_mm256_loadu_ps(pixels + 1), positions) };
}

/// Sources that are near, in one or two rows.
template <int rows>
VEXO_AVX2 inline void near_floats8(const Positions8& p, const RemapImage<float>& image, float* dst) noexcept
{
    const Pair8 row0 = pick8(at(image, p.left, p.top), p.dx), row1 = pick8(at(image, p.left, p.top + 1), p.dx);
    if (rows == 1) return store_floats8(p, row0.left, row0.right, row1.left, row1.right, dst);
    const Pair8 row2 = pick8(at(image, p.left, p.top + 2), p.dx);
    const __m256 below = _mm256_castsi256_ps(_mm256_slli_epi32(p.dy, 31)); // 1 -> the sign bit
    store_floats8(p, _mm256_blendv_ps(row0.left, row1.left, below), _mm256_blendv_ps(row0.right, row1.right, below),
        _mm256_blendv_ps(row1.left, row2.left, below), _mm256_blendv_ps(row1.right, row2.right, below), dst);
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

/// Which images there are.
enum Wanted { one_image_of_bytes, one_image_of_floats, map_and_mask, map_and_two };

/// The row of sources that the next row of pixels will need first: the processor does not foresee it, as it begins on
/// other pages. Addresses after the image do no harm.
template <class T> VEXO_INLINE void fetch_below(const Positions8& p, const RemapImage<T>& image) noexcept
{
    __builtin_prefetch(reinterpret_cast<const uchar*>(at(image, p.left, p.top)) + 2 * image.step);
}

template <int rows, Wanted wanted>
VEXO_AVX2 inline void near8(const Positions8& p, int c, const RemapImages& images) noexcept
{
    if (wanted != one_image_of_floats) fetch_below(p, images.bytes);
    if (wanted != one_image_of_bytes) fetch_below(p, images.floats);
    if (wanted == map_and_two) fetch_below(p, images.more_bytes);
    if (wanted != one_image_of_floats) near_bytes8<rows>(p, images.bytes, images.bytes.dst + c);
    if (wanted != one_image_of_bytes) near_floats8<rows>(p, images.floats, images.floats.dst + c);
    if (wanted == map_and_two) near_bytes8<rows>(p, images.more_bytes, images.more_bytes.dst + c);
}

template <Wanted wanted> VEXO_AVX2 inline void far8(const Positions8& p, int c, const RemapImages& images) noexcept
{
    alignas(32) int x[8], y[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(x), p.x);
    _mm256_store_si256(reinterpret_cast<__m256i*>(y), p.y);
    if (wanted != one_image_of_floats) far_bytes8(p, x, y, images.bytes, images.bytes.dst + c);
    if (wanted != one_image_of_bytes) far_floats8(p, x, y, images.floats, images.floats.dst + c);
    if (wanted == map_and_two) far_bytes8(p, x, y, images.more_bytes, images.more_bytes.dst + c);
}

template <Wanted wanted> VEXO_AVX2 inline void fill8(int c, const RemapImages& images) noexcept
{
    if (wanted != one_image_of_floats) std::fill_n(images.bytes.dst + c, 8, images.bytes.fill);
    if (wanted != one_image_of_bytes) std::fill_n(images.floats.dst + c, 8, images.floats.fill);
    if (wanted == map_and_two) std::fill_n(images.more_bytes.dst + c, 8, images.more_bytes.fill);
}

constexpr int spread_of(Wanted wanted) noexcept
{
    return wanted == one_image_of_bytes ? 14 : 7; // px that one load reaches
}

constexpr int window_of(Wanted wanted) noexcept
{
    return wanted == one_image_of_floats ? 9 : 16; // px that one load reads
}

/// Eight pixels whose sources do not lie in one pair of rows: in two pairs, apart, at a border, or outside.
template <Wanted wanted>
VEXO_AVX2 void remap8_anywhere(const float* map_x, const float* map_y, int c, const Positions8& p, cv::Size size,
    const RemapImages& images) noexcept
{
    constexpr int spread = spread_of(wanted), window = window_of(wanted);
    const Positions8 above = from_above(p);
    if (are_near(p, size, 2, spread, window)) return near8<2, wanted>(p, c, images);
    if (are_near(above, size, 2, spread, window)) return near8<2, wanted>(above, c, images);
    const int inside = inside_bits(p, size);
    if (inside == 0)
        fill8<wanted>(c, images);
    else if (inside == 0xFF)
        far8<wanted>(p, c, images);
    else
        remap_pixels(map_x, map_y, c, c + 8, size, images);
}

/// Eight pixels at a time. Mostly their sources lie side by side in one pair of rows and come with one load each.
template <Wanted wanted>
VEXO_AVX2 void remap_row_avx2(
    const float* map_x, const float* map_y, int cols, cv::Size size, const RemapImages& images) noexcept
{
    int c = 0;
    for (; c + 8 <= cols; c += 8) {
        const Positions8 p = positions8_of(map_x + c, map_y + c);
        if (are_near(p, size, 1, spread_of(wanted), window_of(wanted)))
            near8<1, wanted>(p, c, images);
        else
            remap8_anywhere<wanted>(map_x, map_y, c, p, size, images);
    }
    remap_pixels(map_x, map_y, c, cols, size, images);
}
#endif

} // namespace

void remap_row(const float* map_x, const float* map_y, int cols, cv::Size size, const RemapImages& images) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) {
        const bool bytes = images.bytes.src != nullptr, floats = images.floats.src != nullptr;
        const bool more = images.more_bytes.src != nullptr;
        if (bytes && floats && more) return remap_row_avx2<map_and_two>(map_x, map_y, cols, size, images);
        if (bytes && floats) return remap_row_avx2<map_and_mask>(map_x, map_y, cols, size, images);
        if (bytes && !more) return remap_row_avx2<one_image_of_bytes>(map_x, map_y, cols, size, images);
        if (floats && !more) return remap_row_avx2<one_image_of_floats>(map_x, map_y, cols, size, images);
    }
#endif
    remap_pixels(map_x, map_y, 0, cols, size, images);
}

} // namespace vexo
