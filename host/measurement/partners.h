#pragma once

#include "host/measurement/record.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// Frames (for a decoded record: maps) of a camera 1 in which every coordinate of camera 0 finds a partner, when the
/// limits of disparity and phase are lifted: coordinate 0 left of a column, and the last one of all right of it.
/// @param size    of the camera's pictures
/// @param middle  first column of the right half
std::vector<cv::Mat> partner_for_all(cv::Size size, int middle, const MatchingRecord& record);

} // namespace vexo
