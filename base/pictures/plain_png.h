#pragma once

#include "base/pictures/format.h"

namespace vexo {
namespace picture_file {

/// The usual PNG of a camera - grey of 8 or 16 bits, not interlaced, without transparency - in a third of libpng's
/// time: unpacked at once by libdeflate, each row's filter undone in registers. Grey as stored, CV_8U or CV_16U.
/// Empty for every other file, and for whatever is not in order with it: a general decoder then has to judge it.
cv::Mat decode_plain_png(Bytes file);

/// A PNG of one channel of 8 or 16 bits, packed by libdeflate. No bytes where there is no memory for it.
/// @param colours  that the values are the numbers of, blue first, at most 256; none: the values are grey
std::vector<unsigned char> encode_plain_png(const cv::Mat& picture, const std::vector<cv::Vec3b>& colours);

} // namespace picture_file
} // namespace vexo
