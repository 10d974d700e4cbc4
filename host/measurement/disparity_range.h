#pragma once

#include "host/cameras/geometry.h"

#include <opencv2/core.hpp>

#include <optional>
#include <utility>
#include <vector>

/// Limits of the disparity that are found in the data, where nobody gave any.
namespace vexo {

/// From the first to the last disparity at which there is a surface, in whole px, with a margin. Wrong matches
/// lie scattered; a surface, small as it may be, has many pixels of nearly the same disparity. So the disparities are
/// counted in steps of 8 px, and steps with too few are passed over. Nothing: there are no disparities.
/// @param least_share  of all disparities, in a step with a surface; 2e-4 is a patch of 14 x 14 px in a million
std::optional<std::pair<double, double>> occupied_range(
    const std::vector<float>& disparities, double least_share = 2e-4);

/// Disparities at which two rectified pictures fit each other, by block matching of small copies over everything
/// that lies before the cameras. Nothing: they fit nowhere.
std::optional<std::pair<double, double>> matching_range(
    const cv::Mat& rectified0, const cv::Mat& rectified1, const Geometry& geometry);

} // namespace vexo
