#pragma once

#include "host/clouds/sighted.h"

#include <optional>

namespace vexo {

struct PlaneFit {
    cv::Vec3d normal;                 ///< unit length, towards the camera
    double offset = 0.0;              ///< normal . x = offset on the plane
    std::vector<std::size_t> inliers; ///< numbers of the points on it
    std::vector<double> residuals;    ///< of the inliers along the normal, mm
    double rms = 0.0;                 ///< of the residuals
    double depth_rms = 0.0;           ///< of the same along the lines of sight, as depths
    double noise = 0.0;               ///< rms of their sigma along the normal

    double off(const Sighted& s) const { return normal.dot(s.point) - offset; }
};

/// Fewest points that a plane is fitted to.
constexpr std::size_t fewest_plane_points = 100;

/// The plane that most of the points lie on, among whatever else there is. Found by planes through three of them, then
/// fitted by least squares weighted with 1 / sigma^2. Lines of sight are exact and depths are not: on a plane 1/Z is
/// linear in (X/Z, Y/Z), so that is what is solved. Nothing when no plane holds a fifth of the points, or for fewer
/// than fewest_plane_points.
/// Source: Fischler, Bolles, Comm. ACM 24 (1981) 381; Torr, Zisserman, CVIU 78 (2000) 138.
std::optional<PlaneFit> fit_plane(const std::vector<Sighted>& points, bool sigma_known);

} // namespace vexo
