#pragma once

#include "host/cameras/stereo.h"
#include "host/captures/noise.h"
#include "host/clouds/cloud.h"
#include "host/measurement/candidates.h"
#include "host/measurement/causes.h"
#include "host/measurement/raw_phases.h"
#include "host/measurement/record.h"

#include <opencv2/core.hpp>

#include <array>
#include <optional>
#include <string>
#include <vector>

/// How far off each point may be, and points measured as well as their fringes allow.
namespace vexo {

/// What was made of the library's points.
struct Precision {
    bool refined = false;                ///< each point was measured anew
    std::string why_none;                ///< why points have no sigma; empty: they have
    std::array<NoiseModel, 2> noise;     ///< of each camera
    std::array<long long, 6> samples {}; ///< [n]: points that are read from n pixels of camera 1; [0]: dropped
    CandidateCounts candidates;          ///< where a second decoding says otherwise
    long long in_gaps = 0;               ///< points that the fringes of narrow gaps gave
    cv::Mat sigma; ///< CV_32F, standard deviation of the depth by the noise alone, unit of the calibration; NaN: none
    std::optional<long long> smoothed; ///< points that were put on the surface around them; nothing: not asked for
    double seconds = 0.0;
};

/// Points of phases, as they come from the library and as they are to be.
struct PhasePoints {
    const std::vector<cv::Mat>& frames0; ///< as recorded
    const std::vector<cv::Mat>& frames1;
    const std::array<PixelMasks, 2>& masks;
    const MatchingRecord& record;
    cv::Mat& disparity; ///< CV_32F, px, NaN: no point
    Cloud& cloud;
    CauseMap& causes;
    CandidateLimits limits {}; ///< of a second decoding, when the points are refined
};

/// What points are refined from.
struct PhaseData {
    std::array<NoiseModel, 2> noise; ///< of each camera
    std::array<RawPhases, 2> raw;    ///< empty of a cloud without points
};

PhaseData phase_data(const PhasePoints& points);

/// Refines the points, or leaves them as they are, and says their sigma. Dropped points go from map and cloud, and get
/// the cause `refinement`, or `disparity` where they are now outside the limits.
Precision make_precise(const Stereo& stereo, const PhaseData& data, const PhasePoints& points, bool refined);

} // namespace vexo
