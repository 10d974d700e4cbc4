#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

struct SphereFit {
    cv::Vec3d centre;
    double diameter = 0.0;
    double rms = 0.0;       ///< of the distances to the sphere, over the points used
    std::size_t points = 0; ///< used at last; 0: no sphere
};

/// Sphere through points by least squares of the distances to it: Gauss-Newton from an algebraic start.
/// Points farther off than three standard deviations (by the median of the distances) are left out again and
/// again; fewer than 50 points give no sphere.
/// Source: Forbes, Least-squares best-fit geometric elements, NPL report DITC 140/89 (1989).
SphereFit fit_sphere(std::vector<cv::Vec3d> points);

} // namespace vexo
