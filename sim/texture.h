#pragma once

#include <opencv2/core.hpp>

namespace vexo {
namespace sim {

/// Albedo of a surface painted all over with blotches, for cameras that match textures: noise in space, so it needs
/// no unrolling of the surface. Band-limited: its details are `finest_mm`, twice and four times that in size.
/// Source: value noise, Lewis, SIGGRAPH 1989, with a quintic fade.
/// @return 0.15 to 0.95
double blotchy_albedo(const cv::Vec3d& point_mm, double finest_mm) noexcept;

} // namespace sim
} // namespace vexo
