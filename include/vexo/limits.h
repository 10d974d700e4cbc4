#pragma once

/// The pictures that are accepted anywhere: of a camera, of frames, of photos of a board, and of picture files.
namespace vexo {

/// Longest side, px. cv::remap counts positions in 16 bits and refuses longer ones.
constexpr int max_picture_side = 32766;

/// Largest area, px. The four float tables that rectify such a pair take 1 GB.
constexpr int max_picture_area = 1 << 26;

/// Whether a width and a height, px, lie within these limits; both sides are at least 1.
constexpr bool is_picture_size(double width, double height)
{
    return width >= 1 && height >= 1 && width <= max_picture_side && height <= max_picture_side
        && width * height <= max_picture_area;
}

} // namespace vexo
