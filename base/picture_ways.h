#pragma once

/// How pictures are decoded and encoded.
namespace vexo {

/// What a picture is decoded to. Only `stored` does not heed the orientation of Exif data.
enum class PictureAs {
    grey,      ///< 8 bits
    deep_grey, ///< grey of the file's depth
    colour,    ///< 8 bits each of blue, green and red
    stored     ///< depth and channels of the file; blue first, alpha last
};

/// How a PNG is packed; what is decoded is the same.
enum class PngEffort {
    quick,       ///< by libpng in runs, for pictures with edges
    all_filters, ///< by libpng, the smallest
    /// By libdeflate: noisy grey in a third of the time of runs, and a picture of at most 256 colours as their numbers,
    /// a third of the bytes to pack. Pictures of more colours, or with transparency, are packed the quick way
    at_once
};

} // namespace vexo
