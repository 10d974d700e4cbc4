#pragma once

#include "method.h"
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

/// The pictures or maps of both cameras, in the order of the library's frame indices.
using CameraFrames = std::array<std::vector<cv::Mat>, 2>;

/// Runs the generator of the record's method.
/// @param frames  of the camera's input size: 8-bit pictures, or decoded maps (period numbers 8 bit, phases float)
///                for a record with datatype 1; not changed
/// Throws Failure when the library refuses the parameters or the frames.
Cloud match(iStereoCamera& camera, const CameraFrames& frames, MatchingRecord record, bool interpolate,
    StageTimes* times = nullptr);

/// Disparities of the measured points, by their depths.
std::vector<float> disparities_of(const Cloud& cloud, const Geometry& geometry);

} // namespace vexo::app
