#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <string>

namespace vexo {

/// Largest picture file that is read, in bytes.
constexpr std::size_t max_image_bytes = std::size_t { 256 } << 20;

/// Largest picture that is decoded, in pixels; the same limit as for cameras.
constexpr std::size_t max_image_pixels = std::size_t { 1 } << 26;

/// Picture size that the first bytes of an image file announce, without decoding it.
/// @return  width x height for PNG, JPEG, BMP, PNM and TIFF; 0 x 0 when the format is another one or the header
///          cannot be read
cv::Size announced_image_size(const std::string& bytes) noexcept;

/// Reads an image file as 8-bit grey, colour converted.
///
/// A few hundred bytes can announce a picture of gigabytes, so a header that announces more than
/// max_image_pixels is refused before anything is decoded.
/// @return  an image of at least one pixel, or an empty Mat when the file is no regular file, is too large, or
///          cannot be decoded; throws nothing
cv::Mat read_grey_image(const std::string& path) noexcept;

} // namespace vexo
