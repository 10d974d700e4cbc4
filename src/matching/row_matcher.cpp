#include "matching/row_matcher.h"

#include "base/cpu.h"
#include "matching/divisor.h"
#include "matching/line_fits.h"
#include "matching/nearest.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace vexo {
namespace {

constexpr float infinity = std::numeric_limits<float>::infinity();

/// A right row and its lines, as evaluation reads them.
struct RightRow {
    const int* columns;
    const float* phase;
    const double *slope, *intercept;
};

/// Without branches: a pixel without a nearest one looks at the first, and every line is divided by. One choice after
/// the other: conditions of 32 and of 64 bits take long to join.
VEXO_INLINE void evaluate_body(const float* phases, const int* columns, const int* nearest, int size,
    const RightRow& right_row, const MatchLimits& match_limits, double* __restrict found) noexcept
{
    const RightRow right = right_row;
    const MatchLimits limits = match_limits;
#pragma omp simd
    for (int i = 0; i < size; ++i) {
        const int k = nearest[i], at = k < 0 ? 0 : k;
        const double slope = right.slope[at];
        const auto diff = static_cast<double>(__builtin_fabsf(phases[i] - right.phase[at]));
        const double column = right.columns[at];
        const double on_line = (static_cast<double>(phases[i]) - right.intercept[at]) / divisor_of(slope);
        double disparity = columns[i] - (slope <= 0.0 ? column : on_line);
        disparity = limits.min_disparity <= disparity ? disparity : limits.invalid;
        disparity = disparity <= limits.max_disparity ? disparity : limits.invalid;
        disparity = diff > limits.max_phase_diff ? limits.invalid : disparity;
        found[i] = k < 0 ? limits.invalid : disparity;
    }
}

// NOLINTBEGIN(bugprone-macro-parentheses)
#define VEXO_EVALUATION(SET, TARGET)                                                                                   \
    namespace SET {                                                                                                    \
    TARGET void evaluate(const float* phases, const int* columns, const int* nearest, int size, const RightRow& right, \
        const MatchLimits& limits, double* found) noexcept                                                             \
    {                                                                                                                  \
        evaluate_body(phases, columns, nearest, size, right, limits, found);                                           \
    }                                                                                                                  \
    }
VEXO_FORMS(VEXO_EVALUATION)
// NOLINTEND(bugprone-macro-parentheses)

constexpr int block = 8; // columns; mostly they are neighbours

/// Spreads what is listed over its columns of a row.
void put_listed(const int* columns, int size, const double* found, double* row) noexcept
{
    int k = 0;
    for (; k + block <= size; k += block) {
        if (is_gapless(columns + k, block))
            std::memcpy(row + columns[k], found + k, block * sizeof(double));
        else
            for (int i = k; i < k + block; ++i)
                row[columns[i]] = found[i];
    }
    for (; k < size; ++k)
        row[columns[k]] = found[k];
}

bool are_numbers(const float* values, int size) noexcept
{
    int nans = 0;
    for (int k = 0; k < size; ++k)
        nans |= values[k] != values[k];
    return nans == 0;
}

bool are_rising(const float* values, int size) noexcept
{
    int falls = 0;
    for (int k = 0; k + 1 < size; ++k)
        falls |= !(values[k] < values[k + 1]);
    return falls == 0;
}

} // namespace

void RowMatcher::reserve(int cols)
{
    const auto size = static_cast<std::size_t>(cols);
    for (std::vector<float>* list : { &_right_phase, &_thresholds, &_left_phase, &_line_phase })
        list->resize(size + search_window);
    for (std::vector<int>* list : { &_right_columns, &_left_columns, &_line_columns, &_nearest_position })
        list->resize(size);
    _found.resize(size);
    _right_lines.reserve(size);
    _left_lines.reserve(size);
}

bool RowMatcher::match(const PhaseMapRow& left, const PhaseMapRow& right, int cols, const MatchLimits& limits,
    bool interpolate, double* out) noexcept
{
    const int samples = limits.samples == 3 ? 3 : 5;
    _right_size = list_valid_pixels(right, cols, _right_columns.data(), _right_phase.data());
    if (_right_size < samples) return true;
    _left_size = list_valid_pixels(left, cols, _left_columns.data(), _left_phase.data());
    if (_left_size < (interpolate ? samples : 1)) return true;
    if (!_has_searchable_right() || !are_numbers(_left_phase.data(), _left_size)) return false;
    if (interpolate && !_interpolate(samples)) return false;
    if (_left_size == 0) return true;

    _find_nearest();
    double *slope = _right_lines.slope.data(), *intercept = _right_lines.intercept.data();
    fit_lines(samples, _right_columns.data(), _right_phase.data(), _right_size, slope, intercept);
    const int* columns = _left_columns.data();
    const bool direct = is_gapless(columns, _left_size);
    double* found = direct ? out + columns[0] : _found.data();
    auto* const evaluate = VEXO_FORM_OF(evaluate);
    evaluate(_left_phase.data(), columns, _nearest_position.data(), _left_size,
        { _right_columns.data(), _right_phase.data(), slope, intercept }, limits, found);
    if (!direct) put_listed(columns, _left_size, found, out);
    return true;
}

bool RowMatcher::_has_searchable_right() noexcept
{
    const int n = _right_size;
    float* phase = _right_phase.data();
    std::fill_n(phase + n, search_window, infinity); // ends the walk of the search
    if (!(phase[0] > -infinity && phase[n - 1] < infinity)) return false;
    _rising = are_rising(phase, n);
    if (_rising) return true;
    if (!are_numbers(phase, n)) return false;
    clamp_to_search_tree(phase, n, _thresholds.data());
    return true;
}

bool RowMatcher::_interpolate(int samples) noexcept
{
    std::swap(_left_columns, _line_columns);
    std::swap(_left_phase, _line_phase);
    fit_lines(samples, _line_columns.data(), _line_phase.data(), _left_size, _left_lines.slope.data(),
        _left_lines.intercept.data());
    _interpolate_left();
    return are_numbers(_left_phase.data(), _left_size);
}

/// Replaces the left pixels by all columns between the first and the last, as far as rising lines reach; the order
/// of steps is that of PhaseStereoMatching::_get_linedisparity_interpo().
void RowMatcher::_interpolate_left() noexcept
{
    const double *slope = _left_lines.slope.data(), *intercept = _left_lines.intercept.data();
    const int *columns = _line_columns.data(), size = _left_size;
    _left_size = 0;
    if (slope[0] <= 0.0) return;
    int k = 0;
    for (int x = columns[0]; x <= columns[size - 1]; ++x) {
        while (k + 1 < size && x >= columns[k + 1]) {
            ++k;
            if (!(slope[k] <= 0.0)) break;
            if (k + 1 >= size) return;
            x = columns[k + 1];
        }
        const auto i = static_cast<std::size_t>(_left_size++);
        _left_columns[i] = x;
        _left_phase[i] = static_cast<float>(x * slope[k] + intercept[k]);
    }
}

void RowMatcher::_find_nearest() noexcept
{
    const float* values = _right_phase.data();
    find_nearest(_left_phase.data(), _left_size,
        { values, _rising ? values : _thresholds.data(), _right_size - 1, _rising }, _nearest_position.data());
}

} // namespace vexo
