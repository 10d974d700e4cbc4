#include "host/measurement/raw_phases.h"

#include "base/cpu.h"
#include "base/large_pages.h"
#include "base/parallel.h"

#include <algorithm>
#include <cmath>

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
VEXO_AVX2 void phase_row_avx2(const Steps& f, int cols, const RowNoise& noise, float* phase, float* variance) noexcept
{
    phase_row(f, cols, noise, phase, variance);
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
