#pragma once

#include "host/clouds/disparity_scale.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <vector>

namespace vexo {

/// Triangles over the pixels of a map.
struct GridMesh {
    std::vector<cv::Point> pixels;                       ///< of each vertex, row after row
    std::vector<std::array<std::uint32_t, 3>> triangles; ///< counter-clockwise as the camera sees them
};

/// Two triangles over each four neighbouring pixels, along the diagonal with the smaller step of the depth, one where
/// three were measured. No edge spans a step: between two corners the depth may differ by as much as a surface does
/// that is seen at 75 degrees, and by 3 sigma of the difference, but by no more than half of that again: sigma is large
/// where a point stands at the rim of a step. Vertices are the points that a triangle uses.
/// Source: Turk, Levoy, Zippered polygon meshes from range images, SIGGRAPH 1994.
/// @param depth  CV_32F, in the unit of the baseline, NaN: no point
/// @param sigma  CV_32F, standard deviation of the depth, NaN where it is not known; may be empty
GridMesh mesh_of(const cv::Mat& depth, const cv::Mat& sigma, const DisparityScale& scale);

} // namespace vexo
