#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <vector>

namespace vexo {

/// Grey level at which a pixel of a fringe frame counts as clipped.
constexpr int clipped_grey = 250;

/// Noise of a camera's grey values: variance = c0 + k A, at a mean grey level A; the variance of read-out and rounding,
/// and the shot noise. Source: the photon transfer model of EMVA Standard 1288.
struct NoiseModel {
    double c0 = 1.0 / 12.0; ///< grey levels^2; of the rounding alone at least
    double k = 0.0;         ///< grey levels
};

/// The model that fits the residuals r = (I0 + I2 - I1 - I3) / 4 of four fringe steps best, whose variance is a quarter
/// of the noise's: least squares, on A, of 2 (r - r')^2 of a pixel and the one below it, without those beyond five
/// standard deviations, which are motion. A bent response of projector or camera adds a second harmonic,
/// a cos(2 phase + b), which is no noise: it is fitted to each period's residuals, as a pair of coefficients of
/// { (C^2 - S^2) / (4 B), S C / (2 B) } with S = I1 - I3, C = I2 - I0 and B = sqrt(S^2 + C^2) / 2, and taken out. What
/// is left of it, as light that is reflected between surfaces bends it otherwise from place to place, is nearly the
/// same in both pixels, since fringes run down the picture. Clipped pixels are left out. Some 36 000 pairs are looked
/// at: their scatter moves a sigma by half a percent.
/// @param frames  of one camera, as recorded
/// @param sets    index of the first of each four phase-shifted frames
/// @param mask    CV_8U, 255: lit, and with fringes
NoiseModel estimate_noise(
    const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets, const cv::Mat& mask);

} // namespace vexo
