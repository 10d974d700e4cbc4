#pragma once

#include "host/clouds/view.h"

#include <cstddef>
#include <vector>

namespace vexo {

/// Two views that have surface in common, both ways.
struct ViewPair {
    std::size_t a = 0, b = 0;    ///< numbers of the views, a < b
    std::size_t pairs = 0;       ///< points of either beside surface of the other, of the evenly spread ones
    double overlap = 0.0;        ///< share of the points of that which has more of its own in the other
    double typical_sigmas = 0.0; ///< of the distances along the normal over their sigma, by their median: near 1
    double rms_sigmas = 0.0;     ///< root of their mean square, those beyond 6 left out
    double median_mm = 0.0;      ///< of the distances, absolute
    double beyond = 0.0;         ///< share of the pairs beyond 6 sigma
    double in_front = 0.0;       ///< share of the pairs that are clearly in front of what the other sees there
};

/// Fewer pairs than this, of the evenly spread points, are no overlap.
constexpr std::size_t fewest_view_pairs = 100;

/// The pairs of views that overlap where the poses put them, and how they fit there.
/// @param nearest_mm  points farther than this from the surface of the other view are none of it
/// @param points      of each view that are asked
std::vector<ViewPair> overlaps_of(const std::vector<View>& views, const std::vector<cv::Affine3d>& common_from_view,
    double nearest_mm, std::size_t points = 20000);

/// For each view the first one that it is joined to by pairs, directly or through others; equal for all views: they
/// hang together.
std::vector<std::size_t> joined(std::size_t views, const std::vector<ViewPair>& pairs);

/// How far the surface of a view reaches from its middle, mm: half of its points are as near. Of the view in the
/// middle.
double reach_of(const std::vector<View>& views);

/// What a pose may be off by at most, in reaches.
constexpr double farthest_in_reaches = 0.2;

/// Views laid onto one another.
struct AlignedViews {
    std::vector<cv::Affine3d> common_from_view; ///< that of the first is as given
    bool converged = false;
    int rounds = 0;
    double last_step = 0.0;   ///< mm by which the last round moved a view at most
    int free_directions = 0;  ///< in which nothing holds views on each other: there they stay as they were given
    std::vector<bool> slides; ///< of each view: whether it is among those that these directions move
};

/// Refines the poses of all views together: the weighted squares of the distances to the planes of what the other views
/// see at the same place become least, with 1 / sigma^2 as weight; partners are found by projection into the other
/// view's map. As all pairs enter one system of equations, a turn around an object closes. Of the distances of two
/// views those above four of their typical size do not count.
/// The views are to hang together. Source: Chen, Medioni, Image and Vision Computing 10 (1992) 145; jointly, as Pulli,
/// 3DIM (1999) 160, asks for.
AlignedViews align_views(const std::vector<View>& views, std::vector<cv::Affine3d> common_from_view);

} // namespace vexo
