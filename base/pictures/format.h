#pragma once

#include "base/picture_ways.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

/// What the decoders and encoders of base/pictures/ share.
namespace vexo {
namespace picture_file {

/// Bytes of a file that someone else owns.
struct Bytes {
    const unsigned char* first = nullptr;
    std::size_t size = 0;
};

/// Type of the decoded picture of a file whose pixels are of type `stored`.
int type_as(int stored, PictureAs as) noexcept;

/// Space for a picture of at most max_picture_area pixels and 2^20 a side; empty for a larger one, or none.
cv::Mat room_for(std::int64_t width, std::int64_t height, int type);

/// Grey of one pixel of 8 or 16 bits, 0.299 R + 0.587 G + 0.114 B in 14 binary digits (ITU-R BT.601).
inline int grey_of(int blue, int green, int red) noexcept
{
    constexpr int digits = 14, of_red = 4899, of_green = 9617, of_blue = (1 << digits) - of_red - of_green;
    return (blue * of_blue + green * of_green + red * of_red + (1 << (digits - 1))) >> digits;
}

/// Turns and mirrors the picture as an Exif orientation of 1 to 8 asks; any other number leaves it alone.
void turn_upright(cv::Mat& picture, int orientation);

/// Orientation in Exif data, which begin with the header of a TIFF file; 1 where they say none.
int exif_orientation(Bytes exif) noexcept;

// Each decoder: an empty picture for a file that is damaged or of a kind that is not read.
cv::Mat decode_png(Bytes file, PictureAs as);
cv::Mat decode_jpeg(Bytes file, PictureAs as);
cv::Mat decode_tiff(Bytes file, PictureAs as);
cv::Mat decode_bmp(Bytes file, PictureAs as);
cv::Mat decode_pnm(Bytes file, PictureAs as);

// Each encoder: no bytes for a picture of a type that the format does not hold, or that the caller may not ask for.
std::vector<unsigned char> encode_png(const cv::Mat& picture, PngEffort effort);
std::vector<unsigned char> encode_jpeg(const cv::Mat& picture, int quality);
std::vector<unsigned char> encode_tiff(const cv::Mat& picture);
std::vector<unsigned char> encode_bmp(const cv::Mat& picture);
std::vector<unsigned char> encode_pnm(const cv::Mat& picture);

} // namespace picture_file
} // namespace vexo
