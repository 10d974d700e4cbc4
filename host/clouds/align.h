#pragma once

#include "host/clouds/sighted.h"

namespace vexo {

/// A cloud laid onto a reference.
struct Aligned {
    cv::Matx44d reference_from_cloud = cv::Matx44d::eye();
    bool moved_to_centroid = false; ///< it began with one middle on the other, and not as both lie
    bool converged = false;
    int rounds = 0;
    int free_directions = 0; ///< of six, in which nothing holds the cloud on the reference: it stays there as it lies
    double last_step = 0.0;  ///< mm by which the last round moved the cloud
    double spacing = 0.0;    ///< mm, middle distance of a point of the reference to its neighbour
    std::vector<std::size_t> compared; ///< numbers of the points that were asked for: all, or evenly spread ones
    /// mm along the reference's normal, of each point asked for; NaN where the reference has no surface
    std::vector<double> distances;
    std::vector<double> noise; ///< mm, sigma of each and of its partner along that normal
    double overlap = 0.0;      ///< share of the points that the reference has surface for
};

/// Points of a reference that are too few to be one.
constexpr std::size_t fewest_reference_points = 100;

/// Lays a cloud onto a reference by a rigid motion, from where both lie or with the middle of one on that of the other,
/// whichever brings more of the cloud onto the reference. The weighted squares of the distances to the
/// planes of the reference's nearest points become least, with 1 / sigma^2 as weight. Nearest points count within a
/// radius that shrinks from round to round, so that neither needs to hold all of the other.
/// Source: Chen, Medioni, Image and Vision Computing 10 (1992) 145; the planes by the nearest twelve points.
/// @param reference  at least fewest_reference_points; a sigma of 0 is that of an exact point. Pixels are not read
Aligned align(const std::vector<Sighted>& points, const std::vector<Sighted>& reference, bool sigma_known);

} // namespace vexo
