#include "host/measurement/row_phases.h"

#include "base/cpu.h"

#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {

namespace {

/// Arrays of a row that the kernels fill and read.
struct Offsets {
    int* index;
    float *u, *v, *usable;
};

/// Splits positions into pixels and offsets. What has not four neighbours gets those of the nearest pixel that has.
VEXO_INLINE void split_row(const float* map_x, const float* map_y, int cols, cv::Size raw, const Offsets& out) noexcept
{
    const auto right = static_cast<float>(raw.width - 1), bottom = static_cast<float>(raw.height - 1);
    const int width = raw.width;
    const Offsets to = out;
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const float px = map_x[x] > 0.0F ? map_x[x] : 0.0F, py = map_y[x] > 0.0F ? map_y[x] : 0.0F; // NaN: 0
        const float cx = px < right ? px : right - 1.0F, cy = py < bottom ? py : bottom - 1.0F;
        const int x0 = static_cast<int>(cx), y0 = static_cast<int>(cy);
        to.index[x] = y0 * width + x0;
        to.u[x] = cx - static_cast<float>(x0);
        to.v[x] = cy - static_cast<float>(y0);
        const float in_x = cx == map_x[x] ? 1.0F : 0.0F, in_y = cy == map_y[x] ? 1.0F : 0.0F;
        to.usable[x] = in_x * in_y;
    }
}

VEXO_INLINE void sample_phases(
    const float* raw, int width, const int* index, const float* u, const float* v, int cols, float* out) noexcept
{
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int i = index[x];
        const float a = raw[i], b = shortest(raw[i + 1] - a), e = shortest(raw[i + width] - a),
                    g = shortest(raw[i + width + 1] - a);
        out[x] = a + (1.0F - v[x]) * u[x] * b + v[x] * ((1.0F - u[x]) * e + u[x] * g);
    }
}

VEXO_INLINE void sample_variances(const float* raw, int width, const Offsets& at, int cols, float* out) noexcept
{
    constexpr float none = std::numeric_limits<float>::quiet_NaN();
    const Offsets to = at;
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int i = to.index[x];
        const float a = raw[i], b = raw[i + 1], e = raw[i + width], g = raw[i + width + 1];
        const float u = to.u[x], v = to.v[x];
        const float ab = a < b ? a : b, eg = e < g ? e : g, least = ab < eg ? ab : eg;
        const float A = a < 0.0F ? -a : a, B = b < 0.0F ? -b : b, E = e < 0.0F ? -e : e, G = g < 0.0F ? -g : g;
        const float mean = (1.0F - v) * ((1.0F - u) * A + u * B) + v * ((1.0F - u) * E + u * G);
        const float inside = to.usable[x];
        out[x] = inside > 0.0F ? mean : none;
        to.usable[x] = least > 0.0F ? inside : 0.0F;
    }
}

/// Both kinds of processors run these: the same operations in the same order.
struct Kernels {
    decltype(&split_row) split;
    decltype(&sample_phases) phases;
    decltype(&sample_variances) variances;
};

void split_plain(const float* map_x, const float* map_y, int cols, cv::Size raw, const Offsets& out) noexcept
{
    split_row(map_x, map_y, cols, raw, out);
}

void phases_plain(
    const float* raw, int width, const int* index, const float* u, const float* v, int cols, float* out) noexcept
{
    sample_phases(raw, width, index, u, v, cols, out);
}

void variances_plain(const float* raw, int width, const Offsets& at, int cols, float* out) noexcept
{
    sample_variances(raw, width, at, cols, out);
}

#if defined(__x86_64__)
VEXO_AVX2_GATHERS void split_avx2(
    const float* map_x, const float* map_y, int cols, cv::Size raw, const Offsets& out) noexcept
{
    split_row(map_x, map_y, cols, raw, out);
}

/// Pixels and their right neighbours.
struct Pairs8 {
    __m256 left, right;
};

/// Of eight pixels: each pair of neighbours is loaded as one number of 64 bits.
VEXO_AVX2 inline Pairs8 pairs8(const float* raw, __m256i index) noexcept
{
    const __m256i halves = _mm256_permute4x64_epi64(index, _MM_SHUFFLE(3, 1, 2, 0)); // 0 1 4 5, 2 3 6 7
    const auto* const base = reinterpret_cast<const double*>(raw);
    const __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1)), zero = _mm256_setzero_pd();
    const auto gathered = [&](__m128i from) VEXO_AVX2 {
        return _mm256_castpd_ps(_mm256_mask_i32gather_pd(zero, base, from, all, sizeof(float)));
    };
    const __m256 a = gathered(_mm256_castsi256_si128(halves)), b = gathered(_mm256_extracti128_si256(halves, 1));
    return { _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)), _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)) };
}

VEXO_AVX2 inline __m256 shortest8(__m256 difference) noexcept
{
    const __m256 shift = _mm256_set1_ps(12582912.0F);
    return _mm256_sub_ps(difference, _mm256_sub_ps(_mm256_add_ps(difference, shift), shift));
}

VEXO_AVX2 void phases_avx2(
    const float* raw, int width, const int* index, const float* u, const float* v, int cols, float* out) noexcept
{
    const __m256 one = _mm256_set1_ps(1.0F);
    int x = 0;
    for (; x + 8 <= cols; x += 8) {
        const __m256i i = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(index + x));
        const Pairs8 top = pairs8(raw, i), bottom = pairs8(raw + width, i);
        const __m256 b = shortest8(_mm256_sub_ps(top.right, top.left));
        const __m256 e = shortest8(_mm256_sub_ps(bottom.left, top.left));
        const __m256 g = shortest8(_mm256_sub_ps(bottom.right, top.left));
        const __m256 fu = _mm256_loadu_ps(u + x), fv = _mm256_loadu_ps(v + x);
        const __m256 upper = _mm256_mul_ps(_mm256_mul_ps(_mm256_sub_ps(one, fv), fu), b);
        const __m256 lower
            = _mm256_mul_ps(fv, _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(one, fu), e), _mm256_mul_ps(fu, g)));
        _mm256_storeu_ps(out + x, _mm256_add_ps(_mm256_add_ps(top.left, upper), lower));
    }
    sample_phases(raw, width, index + x, u + x, v + x, cols - x, out + x);
}

VEXO_AVX2 void variances_avx2(const float* raw, int width, const Offsets& at, int cols, float* out) noexcept
{
    const __m256 one = _mm256_set1_ps(1.0F), zero = _mm256_setzero_ps(), sign = _mm256_set1_ps(-0.0F);
    const __m256 none = _mm256_set1_ps(std::numeric_limits<float>::quiet_NaN());
    int x = 0;
    for (; x + 8 <= cols; x += 8) {
        const __m256i i = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at.index + x));
        const Pairs8 top = pairs8(raw, i), bottom = pairs8(raw + width, i);
        const __m256 least
            = _mm256_min_ps(_mm256_min_ps(top.left, top.right), _mm256_min_ps(bottom.left, bottom.right));
        const __m256 fu = _mm256_loadu_ps(at.u + x), fv = _mm256_loadu_ps(at.v + x), gu = _mm256_sub_ps(one, fu);
        const auto mixed = [&](const Pairs8& pair) VEXO_AVX2 {
            return _mm256_add_ps(_mm256_mul_ps(gu, _mm256_andnot_ps(sign, pair.left)),
                _mm256_mul_ps(fu, _mm256_andnot_ps(sign, pair.right)));
        };
        const __m256 mean
            = _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(one, fv), mixed(top)), _mm256_mul_ps(fv, mixed(bottom)));
        const __m256 inside = _mm256_loadu_ps(at.usable + x);
        _mm256_storeu_ps(out + x, _mm256_blendv_ps(none, mean, _mm256_cmp_ps(inside, zero, _CMP_GT_OQ)));
        _mm256_storeu_ps(at.usable + x, _mm256_and_ps(inside, _mm256_cmp_ps(least, zero, _CMP_GT_OQ)));
    }
    sample_variances(raw, width, { at.index + x, at.u + x, at.v + x, at.usable + x }, cols - x, out + x);
}
#endif

Kernels kernels() noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return { split_avx2, phases_avx2, variances_avx2 };
#endif
    return { split_plain, phases_plain, variances_plain };
}

} // namespace

RowPhases::RowPhases(int cols, const std::vector<FringeSet>& sets)
    : phases(sets.size(), std::vector<float>(static_cast<std::size_t>(cols)))
    , variance(static_cast<std::size_t>(cols))
    , usable(variance)
    , u(variance)
    , v(variance)
    , _index(variance.size())
{
}

void RowPhases::sample(const RawPhases& raw, const RectifyingTable& table, int y, cv::Range columns)
{
    const Kernels run = kernels();
    const int x = columns.start, cols = columns.size(), width = raw.variance.cols;
    const Offsets at { _index.data() + x, u.data() + x, v.data() + x, usable.data() + x };
    run.split(table.x.ptr<float>(y) + x, table.y.ptr<float>(y) + x, cols, raw.variance.size(), at);
    run.variances(raw.variance.ptr<float>(), width, at, cols, variance.data() + x);
    for (std::size_t f = 0; f < phases.size(); ++f)
        run.phases(raw.phases[f].ptr<float>(), width, at.index, at.u, at.v, cols, phases[f].data() + x);
}

} // namespace vexo
