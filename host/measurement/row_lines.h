#pragma once

#include "host/measurement/row_phases.h"

#include <vector>

/// Lines through neighbouring samples of a row of camera 1, and where a coordinate of camera 0 lies on them.
namespace vexo {

/// Two estimates of one position agree when they differ by no more than 2.5 standard deviations of their difference
/// and 0.01 px, for what noise does not explain.
constexpr float agreement_squared = 6.25F, agreement_px = 0.01F;

/// How the squared difference of the windows of five and three becomes the squared bias of five: a parabola would move
/// them by 2 c and 2/3 c, a factor of 2.25; where correct_bend() takes the parabola off, less is left. Found on
/// simulated busts, steps and spheres as what keeps error / sigma nearest to 1 in every tenth of the points.
constexpr float bias_of_five = 1.6F;

/// Columns that are read to the left and the right of a row's ends.
constexpr int line_margin = 8;

/// An array of a row with line_margin entries more at both ends.
class Padded {
public:
    Padded(int cols, float value)
        : _values(static_cast<std::size_t>(cols + 2 * line_margin), value)
    {
    }
    float* data() { return _values.data() + line_margin; }
    const float* data() const { return _values.data() + line_margin; }
    float operator[](int k) const { return data()[k]; }

private:
    std::vector<float> _values;
};

/// Lines around each column k of a row: X_j is the coordinate of column k + j relative to that of k, by the shortest
/// steps in between; a line through N of them has the mean of X over them and a slope, which has to rise. Where a
/// sample is not usable, or the slope does not rise, the inverse slope is NaN. Units as RawPhases::variance.
class RowLines {
public:
    explicit RowLines(int cols);

    void fit(const RowPhases& row, const std::vector<FringeSet>& sets);

    int cols;
    Padded step;               ///< X_1 of k
    Padded usable;             ///< RowPhases::usable, 0 beyond the ends
    Padded mean5, inverse5;    ///< line through five samples
    Padded mean3, inverse3;    ///< and through three
    Padded inverse_step;       ///< of column k to k + 1
    Padded inverse;            ///< of five samples, or else of three
    Padded spread;             ///< (0.667 sqrt(V) inverse)^2 of column k, px^2
    Padded bend;               ///< c of the parabola slope (j + c j^2) through five samples, 1/px
    Padded at_middle, growing; ///< variance of a line through five samples, px^2: at_middle + t^2 growing
};

/// Where a coordinate D, relative to column k's, lies on its lines, px from k; NaN: there is no such line.
struct Positions {
    float five, three, two;
};

/// The shares of RowLines::spread that the differences of two positions vary by.
__attribute__((always_inline)) inline float share53(float five) noexcept
{
    const float a = five < 0.0F ? -five : five, b = a < 1.0F ? a : 1.0F;
    return 0.1333F + 0.4F * b * b;
}

__attribute__((always_inline)) inline float share52(float five) noexcept
{
    const float a = five < 0.0F ? -five : five, b = (a < 1.0F ? a : 1.0F) - 0.8F;
    return b * b + 0.2F;
}

__attribute__((always_inline)) inline float share32(float three) noexcept
{
    const float a = three < 0.0F ? -three : three, b = a < 1.0F ? a : 1.0F;
    const float c = b - 2.0F / 3.0F, d = 1.0F / 3.0F - 0.5F * b;
    return c * c + 2.0F * d * d;
}

/// Whether two positions are too far apart for a difference of this variance; false where one is missing.
__attribute__((always_inline)) inline bool disagree(float a, float b, float variance) noexcept
{
    const float difference = a < b ? b - a : a - b, beyond = difference - agreement_px;
    return (beyond > 0.0F) & (beyond * beyond > agreement_squared * variance);
}

/// What the first look at a row needs and finds: every pixel is tried at its own column.
struct FirstLook {
    const float* difference; ///< D, of each pixel of camera 0
    const int* column;       ///< k
    const float* variance0;  ///< of camera 0's coordinate, rectified
    float* position;         ///< out: px from k, of a line through five samples
    float* variance;         ///< out: of it, px^2
    int* samples;            ///< out: 5, or 0 where the lines do not agree
};

void look_at_row(const RowLines& lines, const FirstLook& look);

} // namespace vexo
