#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// Pictures from files, and as the bytes of files.
namespace vexo {

/// One picture as OpenCV decodes it, flags as of cv::imread. Throws Failure for what is no picture, damaged, or larger
/// than picture_file::may_be_decoded() allows.
cv::Mat read_picture(const std::string& path, int flags);

/// One picture as 8-bit grey; 16 bits are rounded to 8. Throws Failure.
cv::Mat read_grey(const std::string& path);

/// One picture as grey of 8 or 16 bits, as the file has them. Throws Failure, also for other numbers than these.
cv::Mat read_deep_grey(const std::string& path);

/// The picture as PNG (8 or 16 bit) or TIFF (float), in memory. Throws Failure.
std::vector<unsigned char> encode(const std::string& extension, const cv::Mat& picture);

/// The picture as JPEG, 8 bit. Throws Failure.
/// @param quality  1 to 100
std::vector<unsigned char> encode_jpeg(const cv::Mat& picture, int quality);

} // namespace vexo
