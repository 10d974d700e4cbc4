#pragma once

#include "host/captures/fringe_method.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstddef>
#include <vector>

/// Frames that show nothing, or what another one shows.
namespace vexo {

struct OddFrames {
    std::vector<std::size_t> unused;               ///< planes of the gray code with one grey value all over, rightly
    std::vector<std::size_t> empty;                ///< frames that show nothing although the others need them
    std::vector<std::array<std::size_t, 2>> equal; ///< pairs that are the same bit by bit; one of each is wrong
};

/// @param frames  of one camera, as many as the method has
OddFrames find_odd_frames(const std::vector<cv::Mat>& frames, const FringeMethod& method);

/// Whether a picture has one grey value all over, as no camera sees it.
bool is_blank(const cv::Mat& frame);

/// Whether two pictures are the same bit by bit.
bool same_picture(const cv::Mat& a, const cv::Mat& b);

} // namespace vexo
