#pragma once

#include "host/cameras/hand_eye.h"

#include <optional>
#include <vector>

namespace vexo {

/// By how much larger or smaller the board is than its file says, where robot and photos are in one unit of length.
struct BoardScale {
    double factor = 1.0; ///< true size over that of the file
    HandEyeResidual rms; ///< with a board of that size
};

/// The size of the board with which the poses fit best. Nothing where it explains no more than chance may: an F test at
/// 1e-3 of the squared distances. A wrong pitch moves the camera by its share of the distance, by far more than
/// sigma, which knows nothing of it.
/// @param rms  of the poses as they are
std::optional<BoardScale> find_board_scale(const std::vector<HandEyePose>& poses, HandEyeSetup setup,
    const cv::Vec3d& board_point_mm, const HandEyeResidual& rms);

} // namespace vexo
