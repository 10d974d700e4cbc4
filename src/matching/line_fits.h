#pragma once

/// The lines through neighbouring pixels of a row.
namespace vexo {

/// Fits a line around each position of a row, as LeastSquares::solve() with check() does for one.
///
///     phase = slope column + intercept
///
/// @param samples           entries that a line goes through: 3, or else 5; a row has at least as many
/// @param columns, phase    valid columns, ascending, and the phase in each
/// @param size              number of positions
/// @param slope, intercept  out, one for each position
void fit_lines(
    int samples, const int* columns, const float* phase, int size, double* slope, double* intercept) noexcept;

} // namespace vexo
