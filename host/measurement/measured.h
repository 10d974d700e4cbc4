#pragma once

#include "host/cameras/stereo.h"
#include "host/captures/choose_method.h"
#include "host/captures/fringes.h"
#include "host/clouds/cloud.h"
#include "host/measurement/causes.h"
#include "host/measurement/match.h"
#include "host/measurement/parameters.h"
#include "host/measurement/precision.h"
#include "host/measurement/projector.h"
#include "host/measurement/record.h"
#include "host/measurement/rows.h"
#include "host/verdict/finding.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo {

/// Measured::range_origin where block matching found no disparities to search.
constexpr const char* no_range = "none was found";

/// What was measured, and how.
struct Measured {
    Choice choice;
    MatchingRecord record;
    Geometry geometry;     ///< of rectified camera 0
    double baseline = 0.0; ///< in `unit`
    Unit unit;             ///< of every length
    std::array<PixelMasks, 2> masks;
    std::array<std::vector<FringeFigures>, 2> fringes; ///< of each camera, one for each period
    RunLengths runs;
    Origins origins;                  ///< of the parameters that phases are matched with
    double min_modulation = 0.0;      ///< of a pixel that is measured, grey levels
    WeakPixels weak;                  ///< of camera 0, left out by a contrast that was given
    cv::Mat texture;                  ///< rectified lit frame of camera 0
    std::string range_origin;         ///< where the disparity limits come from
    std::vector<float> any_disparity; ///< what phases match without limits
    Cloud cloud;                      ///< rectified camera 0; may hold no point
    CauseMap causes;
    cv::Mat disparity, depth; ///< CV_32F, NaN where nothing was measured
    cv::Mat uncleaned;        ///< the disparities before points were taken out because of those around them
    Precision precision;      ///< how far off the points may be, and whether they were refined
    RowError rows;
    ProjectorFit projector;        ///< asked only where the rows do not settle it
    std::vector<Finding> findings; ///< of the calibration and by judge_measured(); causes before what they cause
    StageTimes times;
    double rectify_seconds = 0.0, first_pass_seconds = 0.0, causes_seconds = 0.0;
    double checks_seconds = 0.0; ///< of what the findings cost

    Method method() const { return choice.method; }
    /// Fringe periods in projector px; empty for other methods.
    std::vector<int> periods() const;
};

} // namespace vexo
