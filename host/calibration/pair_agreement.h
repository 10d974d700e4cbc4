#pragma once

#include "host/calibration/camera_fit.h"

#include <vector>

namespace vexo {

/// How well each pair of views agrees with the others about where camera 1 stands: rms in px of camera 1's markers,
/// put where camera 0 and the relative pose of the most agreeable view expect them; NaN for views not in `use`. Views
/// that are no pair (mixed up, or not taken together) stand out by far.
/// @param cameras  calibrated one by one, so that no wrong pair has bent them; their poses are not read
std::vector<double> pair_agreement(const std::vector<CalibratedCamera>& cameras, const BoardViews& views,
    const std::vector<bool>& use, const BoardFile& board);

} // namespace vexo
