#pragma once

#include "vexo/limits.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <string>

/// What the first bytes of a picture file say, before anything decodes it.
namespace vexo {
namespace picture_file {

/// Largest picture file that is read, in bytes.
constexpr std::size_t max_bytes = std::size_t { 256 } << 20;

/// Picture size that the first bytes of a picture file announce, without decoding it.
/// @return  width x height for PNG, JPEG, BMP, PNM and classic TIFF; 0 x 0 when the format is another one or the
///          header cannot be read
cv::Size announced_size(const std::string& bytes) noexcept;

/// Whether a file may be given to a decoder of pictures: a few hundred bytes can announce a picture of gigabytes, or
/// a small one that takes hours, and formats whose size is not known beforehand are handed to libraries far larger than
/// need be. A file that holds the pictures of two cameras side by side may be wider than max_picture_side.
bool may_be_decoded(const std::string& bytes) noexcept;

} // namespace picture_file
} // namespace vexo
