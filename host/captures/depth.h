#pragma once

#include <opencv2/core.hpp>

/// How many bits the grey values of frames have, and frames of 8 bits made of deeper ones.
namespace vexo {

/// Bits of grey values that are measured with.
constexpr int common_bits = 8;

/// The largest grey value of a frame of 8 or 16 bits; 0 of an empty one.
int largest_grey(const cv::Mat& frame);

/// Bits of a camera whose largest value this is: 8, 10, 12, 14 or 16. Cameras of 10 and 12 bits write files of 16.
int bits_of(int largest);

/// Scales a frame whose largest possible value is 2^bits - 1 to 8 bits, rounding to the nearest; an empty one stays.
cv::Mat to_common_bits(const cv::Mat& frame, int bits);

} // namespace vexo
