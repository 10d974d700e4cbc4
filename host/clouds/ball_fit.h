#pragma once

#include "host/clouds/sighted.h"

#include <optional>

namespace vexo {

/// The cameras that saw the points: the rectified camera 0 at the origin, camera 1 to its right.
struct Sight {
    cv::Size size;                      ///< of the rectified picture
    double f = 0.0, cx = 0.0, cy = 0.0; ///< px
    double baseline = 0.0;              ///< mm

    cv::Point2d pixel(const cv::Vec3d& p) const { return { f * p[0] / p[2] + cx, f * p[1] / p[2] + cy }; }
};

struct BallFit {
    cv::Vec3d centre;                 ///< mm
    double diameter = 0.0;            ///< mm
    std::vector<std::size_t> inliers; ///< numbers of the points on it
    double outliers = 0.0;            ///< share of the points near its surface that are not on it
    double rms = 0.0;                 ///< of the distances to it, mm
    double noise = 0.0;               ///< rms of the points' sigma along the radius
    double diameter_sigma = 0.0;      ///< mm, of the noise, with what neighbouring points share
    cv::Matx33d centre_covariance;    ///< the same of the centre, mm^2
};

/// Balls of which so few points are seen are none.
constexpr std::size_t fewest_ball_points = 50;

/// The ball of about that diameter of which the cameras see most of the near side, its diameter then fitted by least
/// squares weighted with 1 / sigma^2. Balls through three neighbouring points are tried, and one of which two fifths of
/// the disc lie on its surface is a ball. Only points that face both cameras by less than 60 degrees count: steeper
/// flanks bend within the samples of a match. Nothing when there is none within 5 % of the diameter.
/// Source: Schnabel, Wahl, Klein, Computer Graphics Forum 26 (2007) 214.
std::optional<BallFit> find_ball(
    const std::vector<Sighted>& points, const Sight& sight, double diameter, bool sigma_known);

} // namespace vexo
