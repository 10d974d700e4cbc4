#pragma once

#include "rig.h"

#include "vexo/vexo.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace vexo::app {

/// Points of one run, one per rectified pixel, row after row; NaN where nothing was measured.
struct Cloud {
    cv::Size size;
    std::vector<cv::Point3f> points;
    int count = 0;

    bool measured(int y, int x) const { return point(y, x).z == point(y, x).z; }
    const cv::Point3f& point(int y, int x) const
    {
        return points[static_cast<std::size_t>(y) * static_cast<std::size_t>(size.width) + static_cast<std::size_t>(x)];
    }
};

/// Seconds of the stages of a run.
struct StageTimes {
    double frames = 0.0;      ///< handing the frames over
    double decode = 0.0;      ///< decoding, unwrapping, rectification
    double triangulate = 0.0; ///< matching and triangulation
};

/// Runs the gray code + phase generator over the frames of both cameras.
/// @param frames  13 per camera, of the camera's input size; not changed
/// Throws Failure when the library refuses the parameters or the frames.
Cloud match(iStereoCamera& camera, const std::array<std::vector<cv::Mat>, 2>& frames, GrayPhaseMatchingParam param,
    bool interpolate, StageTimes* times = nullptr);

} // namespace vexo::app
