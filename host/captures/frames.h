#pragma once

#include "host/captures/find_frames.h"
#include "host/captures/frame_files.h"
#include "host/verdict/finding.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo {

/// The frames of one measurement, 8-bit grey, in the order of projection, all of one size; or decoded maps.
struct FrameSet {
    std::array<std::vector<cv::Mat>, 2> frames;        ///< [camera][frame]
    std::array<std::vector<std::string>, 2> paths;     ///< where each came from; "": made of the others
    std::array<std::vector<std::string>, 2> hashes {}; ///< SHA-256 of each file as it was read; none of decoded maps
    cv::Size size;
    int bits = 8;               ///< of the grey values as recorded
    std::vector<Finding> notes; ///< what was done to them
};

/// Reads the frames, as many as the method has. Throws Failure that names the frame that does not fit.
FrameSet read_frames(const FrameFiles& files, Method method);

/// Makes 8-bit frames of those of both cameras as they were read, and says how.
/// @param bits  gets those of the grey values
std::vector<Finding> scale_to_common_bits(
    std::array<std::vector<cv::Mat>, 2>& frames, const FrameFiles& files, int& bits);

/// Makes what was not recorded, of the cameras that have frames at all, and says what.
std::vector<Finding> complete_frames(
    std::array<std::vector<cv::Mat>, 2>& frames, const FrameFiles& files, Method method);

/// Throws Failure when a frame is not of the set's size.
void check_size(const FrameSet& set, const std::string& path, const cv::Mat& frame);

/// Name of a frame's file; of one that was not recorded, what it is.
std::string name_of_frame(const std::string& path, std::size_t index);

} // namespace vexo
