#pragma once

#include "base/picture_ways.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// Pictures from files, and as the bytes of files: PNG, JPEG, TIFF, BMP and PNM, by libpng, libjpeg, libtiff and, the
/// usual grey PNG, libdeflate.
/// Nothing is printed, and no file is opened but the one that is named.
namespace vexo {

/// Decodes what picture_file::may_be_decoded() allows. An empty picture for anything else, and for a damaged file: no
/// picture of which a part is missing is given.
cv::Mat decode_picture(const std::string& bytes, PictureAs as);
cv::Mat decode_picture(const std::vector<unsigned char>& bytes, PictureAs as);

/// One picture. Throws Failure for what is no picture, damaged, or larger than picture_file::may_be_decoded() allows.
cv::Mat read_picture(const std::string& path, PictureAs as);

/// One picture as 8-bit grey; 16 bits are rounded to 8. Throws Failure.
cv::Mat read_grey(const std::string& path);

/// One picture as grey of 8 or 16 bits, as the file has them. Throws Failure, also for other numbers than these.
cv::Mat read_deep_grey(const std::string& path);

/// The same of bytes that were read already.
/// @param path  that a Failure names
cv::Mat deep_grey_of(const std::string& bytes, const std::string& path);

/// The picture in the format of an extension, in memory: .png, .pgm, .ppm and .pnm for 8 and 16 bits, .jpg and .bmp for
/// 8, .tiff for those and floating-point numbers. No bytes where the format does not hold such a picture.
std::vector<unsigned char> encoded_picture(
    const std::string& extension, const cv::Mat& picture, PngEffort effort = PngEffort::quick);

/// The same; throws Failure where the format does not hold such a picture.
std::vector<unsigned char> encode(
    const std::string& extension, const cv::Mat& picture, PngEffort effort = PngEffort::quick);

/// The picture as JPEG, 8 bit. Throws Failure.
/// @param quality  1 to 100
std::vector<unsigned char> encode_jpeg(const cv::Mat& picture, int quality);

} // namespace vexo
