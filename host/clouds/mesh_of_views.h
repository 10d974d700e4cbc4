#pragma once

#include "host/clouds/fuse_views.h"
#include "host/clouds/view.h"

#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <vector>

namespace vexo {

/// Triangles over the kept points of several views.
struct ViewsMesh {
    std::vector<std::vector<cv::Point>> pixels; ///< of the vertices of each view, row after row
    /// Counter-clockwise from outside; numbers count through the vertices of the first view, then of the second and
    /// so on.
    std::vector<std::array<std::uint32_t, 3>> triangles;
};

/// The grid mesh of each view over its kept points, as mesh_of() lays it, and the seams between views closed: a view
/// goes on over its doubled points next to kept ones, with the other view's vertices at those places in their stead. Of
/// two views that meet the one with the smaller number does so; its strip may lie over the other's first pixel.
/// Source: Turk, Levoy, Zippered polygon meshes from range images, SIGGRAPH 1994, which clips instead.
ViewsMesh mesh_of_views(const std::vector<View>& views, const FusedViews& fused);

} // namespace vexo
