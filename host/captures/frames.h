#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo {

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

/// Throws Failure when a frame is not of the set's size.
void check_size(const FrameSet& set, const std::string& path, const cv::Mat& frame);

} // namespace vexo
