#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// The points after the rigid motion that takes them closest to the others, in the least squares sense; both lists are
/// of one length. Source: Arun, Huang, Blostein, IEEE PAMI 9 (1987) 698.
std::vector<cv::Vec3d> moved_onto(const std::vector<cv::Vec3d>& points, const std::vector<cv::Vec3d>& others);

} // namespace vexo
