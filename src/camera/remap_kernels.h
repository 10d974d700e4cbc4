#pragma once

#include <opencv2/core.hpp>

namespace vexo {

/// Source and destination of one image in remap_row(); `step` is the source's, in bytes.
template <class T> struct RemapImage {
    const T* src = nullptr; ///< first pixel; null: there is no such image
    std::size_t step = 0;
    T* dst = nullptr; ///< one row
    T fill = 0;       ///< value of pixels without a source
};

/// What one pass over the tables remaps; each of the images may be absent, and all have the same size.
struct RemapImages {
    RemapImage<uchar> bytes;
    RemapImage<float> floats;
    RemapImage<uchar> more_bytes;
};

/// One row of a bilinear remap of several images through the same tables. The positions are computed once for all.
///
///     (x, y) = (map_x, map_y) to 1/32 px, rounded to even
///     dst = the four neighbours weighted by (1-fx)(1-fy), fx(1-fy), (1-fx)fy, fx fy
///
/// A pixel is written only when all four neighbours lie inside the source, else it gets the fill value. The result
/// equals cv::remap(INTER_LINEAR, BORDER_TRANSPARENT) on a filled image bit for bit.
///
/// @param map_x, map_y  raw position of each pixel of the row, px; any values
/// @param cols          pixels of the row
/// @param size          of the sources, px, each side below 32767
void remap_row(const float* map_x, const float* map_y, int cols, cv::Size size, const RemapImages& images) noexcept;

} // namespace vexo
