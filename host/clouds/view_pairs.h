#pragma once

#include "host/clouds/view.h"

#include <cstddef>
#include <vector>

/// Points of views beside what other views have at the same place.
namespace vexo {

/// Evenly spread pixels of a view whose point, sigma and normal are known: at most about `most`.
std::vector<cv::Point> spread_pixels(const View& view, std::size_t most);

/// A point beside the plane of its partner, both as the common axes have them.
struct PointPair {
    cv::Vec3d place;    ///< mm, of the point
    cv::Vec3d normal;   ///< of the partner's plane
    double along = 0.0; ///< mm, from that plane to the point
    double sigma = 1.0; ///< mm, of it, by the noise of both
    double apart = 0.0; ///< mm, along the line of sight of the partner's camera; negative: the point is in front
};

/// The points of a view that another view has surface for: its camera looks at them, and what it sees there is turned
/// the same way, within 45 degrees, and by less than 70 degrees to the side of either: beyond, planes through some
/// pixels are not those of the surface. How far off that surface is does not matter.
std::vector<PointPair> pairs_of(const View& view, const std::vector<cv::Point>& pixels,
    const cv::Affine3d& common_from_view, const View& other, const cv::Affine3d& common_from_other);

} // namespace vexo
