#include "host/measurement/row_lines.h"

#include "base/cpu.h"

#include <algorithm>
#include <limits>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();

VEXO_INLINE void add_steps(const float* phase, float weight, int cols, float* step) noexcept
{
#pragma omp simd
    for (int k = 0; k < cols - 1; ++k)
        step[k] += weight * shortest(phase[k + 1] - phase[k]);
}

/// What one column's lines are made from, and what they are.
struct LineArrays {
    const float *step, *usable, *variance, *u, *v;
    float *mean5, *inverse5, *mean3, *inverse3, *inverse_step, *inverse, *spread, *bend, *at_middle, *growing;
};

VEXO_INLINE void fit_lines_of(const LineArrays& l, int cols) noexcept
{
#pragma omp simd
    for (int k = 0; k < cols; ++k) {
        const float x1 = l.step[k], x2 = x1 + l.step[k + 1], y1 = l.step[k - 1], y2 = y1 + l.step[k - 2];
        const float slope5 = (x1 + y1 + 2.0F * (x2 + y2)) * 0.1F, slope3 = (x1 + y1) * 0.5F;
        const float all3 = l.usable[k - 1] * l.usable[k] * l.usable[k + 1];
        const float all5 = all3 * l.usable[k - 2] * l.usable[k + 2], all2 = l.usable[k] * l.usable[k + 1];
        const float inverse5 = ((all5 > 0.0F) & (slope5 > 0.0F)) ? 1.0F / slope5 : none;
        const float inverse3 = ((all3 > 0.0F) & (slope3 > 0.0F)) ? 1.0F / slope3 : none;
        const float m = inverse5 > 0.0F ? inverse5 : inverse3, square = l.variance[k] * m * m;
        const float p = l.u[k] * (1.0F - l.u[k]), kept = kept_variance(l.v[k]) * square;
        l.mean5[k] = (x1 + x2 - y1 - y2) * 0.2F;
        l.mean3[k] = (x1 - y1) * (1.0F / 3.0F);
        l.inverse5[k] = inverse5;
        l.inverse3[k] = inverse3;
        l.inverse_step[k] = ((all2 > 0.0F) & (x1 > 0.0F)) ? 1.0F / x1 : none;
        l.inverse[k] = m;
        l.spread[k] = 0.444889F * square;
        l.bend[k] = (2.0F * (x2 - y2) - (x1 - y1)) * (1.0F / 14.0F) * inverse5;
        l.at_middle[k] = kept * (0.2F - 0.08F * p);
        l.growing[k] = kept * (0.1F - 0.12F * p);
    }
}

struct SeenLines {
    const float *mean5, *inverse5, *mean3, *inverse3, *inverse_step, *spread, *at_middle, *growing;
};

VEXO_INLINE void look(const SeenLines& l, const FirstLook& f, int cols) noexcept
{
#pragma omp simd
    for (int x = 0; x < cols; ++x) {
        const int k = f.column[x];
        const float d = f.difference[x], inverse = l.inverse5[k], spread = l.spread[k];
        const float five = (d - l.mean5[k]) * inverse, three = (d - l.mean3[k]) * l.inverse3[k];
        const float right = l.inverse_step[k], left = l.inverse_step[k - 1];
        const float two = d * (d < 0.0F ? left : right), size2 = two < 0.0F ? -two : two;
        const float size5 = five < 0.0F ? -five : five;
        const bool five_three = (three == three) & !disagree(five, three, spread * share53(five));
        const bool five_two = (size2 <= 1.0F) & disagree(five, two, spread * share52(five));
        const float b = five - three, excess = b * b - 2.0F * spread * share53(five);
        const float bias = excess > 0.0F ? bias_of_five * excess : 0.0F;
        f.samples[x] = ((size5 <= 1.5F) & five_three & !five_two) ? 5 : 0;
        f.position[x] = five;
        f.variance[x] = f.variance0[x] * inverse * inverse + l.at_middle[k] + five * five * l.growing[k] + bias;
    }
}

void add_steps_plain(const float* phase, float weight, int cols, float* step) noexcept
{
    add_steps(phase, weight, cols, step);
}

void fit_plain(const LineArrays& l, int cols) noexcept
{
    fit_lines_of(l, cols);
}

void look_plain(const SeenLines& l, const FirstLook& f, int cols) noexcept
{
    look(l, f, cols);
}

#if defined(__x86_64__)
VEXO_AVX2 void add_steps_avx2(const float* phase, float weight, int cols, float* step) noexcept
{
    add_steps(phase, weight, cols, step);
}

VEXO_AVX2 void fit_avx2(const LineArrays& l, int cols) noexcept
{
    fit_lines_of(l, cols);
}

VEXO_AVX2_GATHERS void look_avx2(const SeenLines& l, const FirstLook& f, int cols) noexcept
{
    look(l, f, cols);
}
#else
constexpr auto add_steps_avx2 = add_steps_plain;
constexpr auto fit_avx2 = fit_plain;
constexpr auto look_avx2 = look_plain;
#endif

} // namespace

RowLines::RowLines(int count)
    : cols(count)
    , step(cols, 0.0F)
    , usable(cols, 0.0F)
    , mean5(cols, 0.0F)
    , inverse5(cols, none)
    , mean3(cols, 0.0F)
    , inverse3(cols, none)
    , inverse_step(cols, none)
    , inverse(cols, none)
    , spread(cols, 0.0F)
    , bend(cols, none)
    , at_middle(cols, 0.0F)
    , growing(cols, 0.0F)
{
}

void RowLines::fit(const RowPhases& row, const std::vector<FringeSet>& sets)
{
    std::copy(row.usable.begin(), row.usable.end(), usable.data());
    std::fill(step.data(), step.data() + cols, 0.0F);
    for (std::size_t f = 0; f < sets.size(); ++f)
        (Cpu::has_avx2() ? add_steps_avx2 : add_steps_plain)(row.phases[f].data(), sets[f].weight, cols, step.data());
    (Cpu::has_avx2() ? fit_avx2 : fit_plain)(
        { step.data(), usable.data(), row.variance.data(), row.u.data(), row.v.data(), mean5.data(), inverse5.data(),
            mean3.data(), inverse3.data(), inverse_step.data(), inverse.data(), spread.data(), bend.data(),
            at_middle.data(), growing.data() },
        cols);
}

void look_at_row(const RowLines& l, const FirstLook& f)
{
    (Cpu::has_avx2() ? look_avx2 : look_plain)(
        { l.mean5.data(), l.inverse5.data(), l.mean3.data(), l.inverse3.data(), l.inverse_step.data(), l.spread.data(),
            l.at_middle.data(), l.growing.data() },
        f, l.cols);
}

} // namespace vexo
