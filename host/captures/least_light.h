#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <vector>

/// How weak the light of a pixel may be, from what its noise is.
namespace vexo {

/// Smallest lit - dark and smallest modulation, grey levels.
struct LeastLight {
    int contrast = 0;
    double modulation = 0.0;
    bool measured = false; ///< by the noise of frames; false: usual_light()
};

/// What serves where the noise is not known, and the most that is asked where it is.
LeastLight usual_light();

/// The limits at which a camera's pixels can still be measured, by the noise s of its dimmest pixels: a modulation of
/// 3.5 s has phases to a 30th of a period; a contrast of 7 sqrt(1.5) s keeps each plane of a gray code 3.5 standard
/// deviations away from its threshold, which is the mean of two frames. Rounding and light of other surfaces set the
/// least that is asked: 8 and 3 grey levels. A bust at a third of the light is measured to 95 % where limits of 16 and
/// 6 leave 90 %, and no more of it wrongly.
/// @param frames  of one camera, as recorded: dark, lit, patterns
/// @param sets    index of the first of each four phase-shifted frames
LeastLight least_light(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets);

/// Takes from the mask the pixels that have less than 0.4 of the contrast of one of their eight neighbours: they are
/// mixed of a surface's edge and of what lies behind it, at a phase of neither. On a simulated bust these are 0.2 % of
/// the points, and a third to a half of its wrong ones.
/// @param contrast  of lit and dark frame, CV_8U or CV_32F, on one scale for all pixels: those of other exposures are
///                  brought to it
/// @param mask      CV_8U, 255: lit, and with fringes
void drop_mixtures(const cv::Mat& contrast, cv::Mat& mask);

/// The same of merged exposures, which are made of scenes in light and dark paint: where the phases go on in row and
/// column the step of brightness is painted on one surface, and the pixel stays. On a bust in stripes of 1/16 to 4 that
/// is 1.8 % of the points, on one of a single albedo none.
/// @param frames  of one camera
/// @param sets    index of the first of each four phase-shifted frames
void drop_mixtures(
    const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets, const cv::Mat& contrast, cv::Mat& mask);

} // namespace vexo
