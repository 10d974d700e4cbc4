#include "matching/reproject_row.h"

#include "base/cpu.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace vexo {
namespace {

using Point = cv::Point3_<float>;

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

#if defined(__x86_64__)

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
        // Zeros become +-1 by their bits, so that no host sees an exception: clang turns the division by a blend into
        // the blend of two divisions.
        const __m256d s = _mm256_div_pd(unit, _mm256_or_pd(w, _mm256_and_pd(at_infinity, unit)));
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

} // namespace

int reproject_row(const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid,
    cv::Point3_<float>* points) noexcept
{
#if defined(__x86_64__)
    if (Cpu::has_avx2()) return reproject_avx2(H, row, disparity, cols, invalid, points);
#endif
    return reproject_plain(H, row, disparity, 0, cols, invalid, points);
}

} // namespace vexo
