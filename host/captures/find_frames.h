#pragma once

#include <string>
#include <vector>

namespace vexo {

/// Files of one camera in the order of projection: all pictures of a folder, or what a pattern such as
/// "scan/left_*.png" matches; numbers in the names count as numbers (frame2 before frame10).
std::vector<std::string> find_frames(const std::string& folder_or_pattern);

} // namespace vexo
