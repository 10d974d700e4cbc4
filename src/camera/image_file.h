#pragma once

#include <opencv2/core.hpp>

#include <string>

namespace vexo {

/// Reads an image file (PNG, JPEG, BMP, PNM, TIFF) as 8-bit grey, colour converted.
///
/// Nothing is decoded that picture_file::may_be_decoded() refuses.
/// @return  an image of at least one pixel, or an empty Mat when the file is no regular file, is too large, or
///          cannot be decoded; throws nothing
cv::Mat read_grey_image(const std::string& path) noexcept;

} // namespace vexo
