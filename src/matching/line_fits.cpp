#include "matching/line_fits.h"

#include "base/cpu.h"
#include "matching/valid_columns.h"

#include <algorithm>

namespace vexo {
namespace {

/// Lines through N neighbouring entries, from `count` positions on, as LeastSquares::solve(), filed under the position
/// in the middle of each span. Vectors of the processor take several positions at a time; each does the same
/// operations in the same order.
///
/// @tparam gapless  the columns are neighbours: around the middle one, m, they sum up to N m, their squares to
///                  N m^2 + N (N^2 - 1) / 12, and D is N^2 (N^2 - 1) / 12; all of them integers, exact
template <int N, bool gapless>
VEXO_INLINE void fit_spans(const int* columns, const float* phase, int count, double* slope, double* intercept) noexcept
{
    constexpr int middle = N / 2, D = N * N * (N * N - 1) / 12;
    constexpr double n = N, gapless_D = D;
    for (int k = 0; k < count; ++k) {
        const double m = columns[0] + k + middle;
        double Sx = gapless ? n * m : 0.0, Sxx = gapless ? n * m * m + gapless_D / n : 0.0;
        float sum_y = 0.0F, sum_xy = 0.0F;
        for (int i = 0; i < N; ++i) {
            const int column = gapless ? columns[0] + k + i : columns[k + i];
            const double x = column;
            Sx += gapless ? 0.0 : x;
            Sxx += gapless ? 0.0 : x * x;
            sum_y += phase[k + i];
            sum_xy += static_cast<float>(column) * phase[k + i];
        }
        const double Sy = static_cast<double>(sum_y), Sxy = static_cast<double>(sum_xy);
        const double inverse = 1.0 / (gapless ? gapless_D : n * Sxx - Sx * Sx); // columns differ: never 0
        slope[k + middle] = (n * Sxy - Sx * Sy) * inverse;
        intercept[k + middle] = (Sxx * Sy - Sx * Sxy) * inverse;
    }
}

template <int N>
VEXO_INLINE void fit_all_spans(
    const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
    constexpr int block = 16;
    int k = 0;
    for (; k + block + N - 1 <= size; k += block) {
        if (is_gapless(columns + k, block + N - 1))
            fit_spans<N, true>(columns + k, phase + k, block, slope + k, intercept + k);
        else
            fit_spans<N, false>(columns + k, phase + k, block, slope + k, intercept + k);
    }
    fit_spans<N, false>(columns + k, phase + k, size - N + 1 - k, slope + k, intercept + k);
}

VEXO_INLINE void fit_spans_of_body(
    int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
    if (samples == 3)
        fit_all_spans<3>(columns, phase, size, slope, intercept);
    else
        fit_all_spans<5>(columns, phase, size, slope, intercept);
}

// NOLINTBEGIN(bugprone-macro-parentheses)
#define VEXO_LINE_FITS(SET, TARGET)                                                                                    \
    namespace SET {                                                                                                    \
    TARGET void fit_spans_of(                                                                                          \
        int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept      \
    {                                                                                                                  \
        fit_spans_of_body(samples, columns, phase, size, slope, intercept);                                            \
    }                                                                                                                  \
    }
VEXO_FORMS(VEXO_LINE_FITS)
// NOLINTEND(bugprone-macro-parentheses)

} // namespace

void fit_lines(int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept
{
    VEXO_FORM_OF(fit_spans_of)(samples, columns, phase, size, slope, intercept);

    // At the ends LeastSquares::check() shifts the span; its middle is then another position.
    const int n = samples == 3 ? 3 : 5, last_begin = size - n;
    const auto copy_from = [&](int k, int begin) {
        slope[k] = slope[begin + n / 2];
        intercept[k] = intercept[begin + n / 2];
    };
    for (int k = 0; k < n / 2; ++k)
        copy_from(k, std::min(k, last_begin));
    for (int k = last_begin + n / 2 + 1; k < size; ++k)
        copy_from(k, last_begin);
}

} // namespace vexo
