#pragma once

#include "host/cameras/view_poses.h"
#include "terminal.h"

#include <string>
#include <vector>

namespace vexo::app {

/// Where camera 0 was at each result, in the frame of a calibration board that stands beside the object and is seen in
/// the lit frames. Throws Failure that names the results in whose frame it is not.
ViewPoses poses_by_board(const std::vector<std::string>& results, const std::string& board, const OnStep& on_step);

} // namespace vexo::app
