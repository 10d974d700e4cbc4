#pragma once

#include <opencv2/core.hpp>

/// Which columns of a row are valid.
namespace vexo {

/// One row of a phase map.
struct PhaseMapRow {
    const uchar* mask;  ///< 255 where the pixel is valid
    const float* phase; ///< one value per column of the image
};

/// Writes the columns where the mask is exactly 255, ascending. @return their number, at most `cols`
int list_valid_columns(const uchar* mask, int cols, int* columns) noexcept;

/// The same, with the phase of each of those columns.
int list_valid_pixels(const PhaseMapRow& row, int cols, int* columns, float* phase) noexcept;

/// Whether `size` ascending columns are neighbours, without one left out.
inline bool is_gapless(const int* columns, int size) noexcept
{
    return columns[size - 1] - columns[0] == size - 1;
}

} // namespace vexo
