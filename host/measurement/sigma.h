#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace vexo {

/// Noise of the decoded projector coordinate, in its own unit, and how many px of camera 1 that unit is long.
struct CoordinateNoise {
    double sigma0 = 0.0, sigma1 = 0.0; ///< of camera 0 and 1
    double unit_px = 0.0;
};

/// The noise of one period's fringes in both cameras.
struct PeriodNoise {
    double period = 0.0;               ///< projector px; gray code + phase: not used
    std::array<double, 2> phase_noise; ///< of camera 0 and 1, fringe periods
    double length_px = 0.0;            ///< of a fringe in camera 1
};

/// The noise of gray code + phase; the unit is a fringe period.
CoordinateNoise gray_noise(const PeriodNoise& noise);

/// The noise of multi-period phase; the unit is a projector px. The coordinate is the mean over n periods T_f with
/// phase noises s_f: sigma^2 = sum (T_f s_f)^2 / n^2.
CoordinateNoise multi_noise(const std::vector<PeriodNoise>& noise);

/// Standard deviation of a disparity by the rounding of cv::remap in both cameras, px.
double remap_rounding();

/// Standard deviation of a disparity by the noise of the grey values alone, px; the first term of sigma_d below.
double disparity_noise(const CoordinateNoise& noise, double fit_points);

/// Standard deviation of the depth that the noise of the grey values lets expect, by first-order propagation:
///
///     sigma_Z = Z^2 / (f b) sigma_d          sigma_d^2 = L^2 (4/9 s0^2 + k s1^2) + 2 q^2
///
/// L is the length of the coordinate's unit in camera 1 in px, s0 and s1 the noise of the coordinate in both cameras
/// (of a phase, in fringe periods: grey noise / (sqrt(2) modulation) / 2 pi). Rectification averages four
/// neighbours: with offsets spread evenly, by 2/3 of the variance along each axis, 4/9 in all. In camera 1 a line
/// through N neighbouring samples is read at most half a pixel from its middle:
///
///     k = 2/3 ((N - 1 + 2/3) / N^2 + 1 / (12 Sxx))          Sxx = N (N^2 - 1) / 12
///
/// q = 1 / (32 sqrt(12)) px is the rounding of cv::remap, which reads each camera's picture at 1/32 px; it changes
/// slowly along a row, so the line does not average it.
/// Source: Surrel, Design of algorithms for phase measurements, Applied Optics 35 (1996) 51, for the phase.
/// @param fit_points  N
/// @param f_baseline  f b, px times the unit of length
double predicted_noise(
    const CoordinateNoise& noise, double fit_points, double f_baseline, const std::vector<cv::Point3f>& cloud);

} // namespace vexo
