#include "host/measurement/raw_phases.h"

#include "base/cpu.h"
#include "base/large_pages.h"
#include "base/parallel.h"

#include <algorithm>
#include <cmath>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {

namespace {

/// One row of the four frames of a set.
struct Steps {
    const uchar *i0, *i1, *i2, *i3;
};

struct RowNoise {
    float c0, k;
    float factor; ///< weight^2 / (2 (2 pi)^2)
};

/// Phases of a row, and its variances on top of what `variance` holds.
VEXO_INLINE void phase_row(const Steps& f, int cols, const RowNoise& noise, float* phase, float* variance) noexcept
{
    const RowNoise model = noise;
    const Steps at = f;
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int a = at.i0[x], b = at.i1[x], c = at.i2[x], d = at.i3[x];
        const auto sine = static_cast<float>(b - d), cosine = static_cast<float>(c - a);
        const float square = 0.25F * (sine * sine + cosine * cosine), power = square < 1.0F ? 1.0F : square;
        const float residual = 0.25F * static_cast<float>(a + c - b - d);
        const float grey = model.c0 + model.k * (0.25F * static_cast<float>(a + b + c + d));
        const int ab = a < b ? b : a, cd = c < d ? d : c, top = ab < cd ? cd : ab;
        const float excess = top < clipped_grey ? 0.0F : residual * residual;
        variance[x] += model.factor * (grey < excess ? excess : grey) / power;
        phase[x] = turns(sine, cosine);
    }
}

#if defined(__x86_64__)
/// turns() of eight.
VEXO_AVX2 inline __m256 turns8(__m256 sine, __m256 cosine) noexcept
{
    const __m256 sign = _mm256_set1_ps(-0.0F), one = _mm256_set1_ps(1.0F);
    const __m256 y = _mm256_andnot_ps(sign, sine), x = _mm256_andnot_ps(sign, cosine);
    const __m256 q = _mm256_div_ps(_mm256_min_ps(x, y), _mm256_max_ps(_mm256_max_ps(x, y), one));
    const __m256 s = _mm256_mul_ps(q, q);
    __m256 sum = _mm256_set1_ps(turns_polynomial[0]);
    for (int i = 1; i < 8; ++i)
        sum = _mm256_add_ps(_mm256_mul_ps(sum, s), _mm256_set1_ps(turns_polynomial[i]));
    const __m256 octant
        = _mm256_mul_ps(_mm256_add_ps(q, _mm256_mul_ps(_mm256_mul_ps(q, s), sum)), _mm256_set1_ps(turns_of_radian));
    const __m256 quarter
        = _mm256_blendv_ps(octant, _mm256_sub_ps(_mm256_set1_ps(0.25F), octant), _mm256_cmp_ps(x, y, _CMP_LT_OQ));
    const __m256 half = _mm256_blendv_ps(quarter, _mm256_sub_ps(_mm256_set1_ps(0.5F), quarter), cosine);
    return _mm256_xor_ps(half, _mm256_and_ps(sign, sine));
}

VEXO_AVX2 inline __m256i greys8(const uchar* greys) noexcept
{
    return _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(greys)));
}

VEXO_AVX2 void phase_row_avx2(const Steps& f, int cols, const RowNoise& noise, float* phase, float* variance) noexcept
{
    const __m256 quarter = _mm256_set1_ps(0.25F), c0 = _mm256_set1_ps(noise.c0), k = _mm256_set1_ps(noise.k);
    const __m256 factor = _mm256_set1_ps(noise.factor), one = _mm256_set1_ps(1.0F);
    const __m256i unclipped = _mm256_set1_epi32(clipped_grey - 1);
    int x = 0;
    for (; x + 8 <= cols; x += 8) {
        const __m256i a = greys8(f.i0 + x), b = greys8(f.i1 + x), c = greys8(f.i2 + x), d = greys8(f.i3 + x);
        const __m256i ac = _mm256_add_epi32(a, c), bd = _mm256_add_epi32(b, d);
        const __m256 sine = _mm256_cvtepi32_ps(_mm256_sub_epi32(b, d));
        const __m256 cosine = _mm256_cvtepi32_ps(_mm256_sub_epi32(c, a));
        const __m256 square
            = _mm256_mul_ps(quarter, _mm256_add_ps(_mm256_mul_ps(sine, sine), _mm256_mul_ps(cosine, cosine)));
        const __m256 residual = _mm256_mul_ps(quarter, _mm256_cvtepi32_ps(_mm256_sub_epi32(ac, bd)));
        const __m256 mean = _mm256_mul_ps(quarter, _mm256_cvtepi32_ps(_mm256_add_epi32(ac, bd)));
        const __m256i top = _mm256_max_epi32(_mm256_max_epi32(a, b), _mm256_max_epi32(c, d));
        const __m256 clipped = _mm256_castsi256_ps(_mm256_cmpgt_epi32(top, unclipped));
        const __m256 excess = _mm256_and_ps(clipped, _mm256_mul_ps(residual, residual));
        const __m256 grey = _mm256_max_ps(_mm256_add_ps(c0, _mm256_mul_ps(k, mean)), excess);
        const __m256 own = _mm256_div_ps(_mm256_mul_ps(factor, grey), _mm256_max_ps(square, one));
        _mm256_storeu_ps(variance + x, _mm256_add_ps(_mm256_loadu_ps(variance + x), own));
        _mm256_storeu_ps(phase + x, turns8(sine, cosine));
    }
    phase_row({ f.i0 + x, f.i1 + x, f.i2 + x, f.i3 + x }, cols - x, noise, phase + x, variance + x);
}
#endif

void phase_row_of(const Steps& f, int cols, const RowNoise& noise, float* phase, float* variance) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return phase_row_avx2(f, cols, noise, phase, variance);
#endif
    phase_row(f, cols, noise, phase, variance);
}

} // namespace

RawPhases raw_phases(const std::vector<cv::Mat>& frames, const std::vector<FringeSet>& sets, const NoiseModel& noise,
    const cv::Mat& mask)
{
    constexpr double pi = 3.14159265358979323846;
    constexpr int band = 32; // rows
    RawPhases raw { sets, std::vector<cv::Mat>(sets.size()), {} };
    create_large(raw.variance, mask.size(), CV_32F);
    for (cv::Mat& phase : raw.phases)
        create_large(phase, mask.size(), CV_32F);
    in_parallel(static_cast<std::size_t>((mask.rows + band - 1) / band), [&](std::size_t i) {
        const int begin = static_cast<int>(i) * band, end = std::min(begin + band, mask.rows);
        for (int y = begin; y < end; ++y) {
            float* const variance = raw.variance.ptr<float>(y);
            std::fill(variance, variance + mask.cols, 0.0F);
            for (std::size_t f = 0; f < sets.size(); ++f) {
                const auto row = [&](std::size_t step) { return frames[sets[f].first + step].ptr<uchar>(y); };
                const double weight = static_cast<double>(sets[f].weight);
                const RowNoise own { static_cast<float>(noise.c0), static_cast<float>(noise.k),
                    static_cast<float>(weight * weight / (8.0 * pi * pi)) };
                phase_row_of({ row(0), row(1), row(2), row(3) }, mask.cols, own, raw.phases[f].ptr<float>(y), variance);
            }
            const uchar* const seen = mask.ptr<uchar>(y);
            for (int x = 0; x < mask.cols; ++x)
                variance[x] = seen[x] != 0 ? variance[x] : -variance[x];
        }
    });
    return raw;
}

} // namespace vexo
