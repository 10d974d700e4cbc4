#pragma once

#include "host/measurement/raw_phases.h"
#include "host/measurement/record.h"

#include <opencv2/core.hpp>

#include <vector>

/// A second decoding of the fringes, pixel by pixel. The library numbers fringes along a row, by votes: it bears noise,
/// but a wrong vote shifts a whole run. Here each pixel numbers its own fringe, and neighbours mend single errors.
namespace vexo {

/// Projector coordinates of the raw pixels of a camera. Gray code + phase: the code's number and the phase, fringe
/// periods. Several periods: the position that the rounded differences of the phases name, projector px; source:
/// Gushov, Solodkin, Opt. Lasers Eng. 14 (1991) 311. Codes that err by one at the start of a fringe, and numbers that
/// noise spoils, are repaired: where fewer than eight of the 24 pixels around a pixel lie within half a period of it,
/// the number is taken that brings it nearest to the median of the 5 x 5.
/// @param frames  of the camera, as recorded
/// @param raw     its phases; pixels of negative variance are left out
/// @return CV_32F, rising to the right; NaN: none
cv::Mat plain_coordinates(const std::vector<cv::Mat>& frames, const RawPhases& raw, const MatchingRecord& record);

} // namespace vexo
