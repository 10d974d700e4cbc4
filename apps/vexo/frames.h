#pragma once

#include "method.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo::app {

/// The frames of one measurement, 8-bit grey, in the order of projection, all of one size; or decoded maps.
struct FrameSet {
    std::array<std::vector<cv::Mat>, 2> frames;    ///< [camera][frame]
    std::array<std::vector<std::string>, 2> paths; ///< where each came from
    cv::Size size;
};

/// Files of one camera in the order of projection: all pictures of a folder, or what a pattern such as
/// "scan/left_*.png" matches; numbers in the names count as numbers (frame2 before frame10).
std::vector<std::string> find_frames(const std::string& folder_or_pattern);

/// Reads `count` frames per camera. Throws Failure that names the frame that is missing or does not fit.
FrameSet read_frames(const std::string& cam0, const std::string& cam1, std::size_t count);

/// Reads maps that another decoder made, in the order of the library's frame indices: black.png, white.png, then
/// period.png or period.tiff and phase.tiff (gray code + phase), or phase0.tiff to phase2.tiff (multi-period).
/// Phases are fractions of a period, CV_32F. Where the period is no number from 0 to 255 the phase becomes NaN.
/// Throws Failure that names the map that is missing or does not fit.
FrameSet read_decoded(const std::string& cam0, const std::string& cam1, Method method);

/// One picture as OpenCV decodes it, flags as of cv::imread. Throws Failure for what is no picture, damaged, or larger
/// than picture_file::may_be_decoded() allows.
cv::Mat read_picture(const std::string& path, int flags);

/// One picture as 8-bit grey. Throws Failure.
cv::Mat read_grey(const std::string& path);

} // namespace vexo::app
