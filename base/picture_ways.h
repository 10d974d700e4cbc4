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

/// How much is tried to make a PNG small. The quick way is for pictures with edges; noise is small in neither. A
/// picture of at most 256 colours can be written as their numbers, a third of the bytes to pack; it is decoded to the
/// same.
enum class PngEffort { quick, all_filters, few_colours };

} // namespace vexo
