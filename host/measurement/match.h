#pragma once

#include "host/cameras/geometry.h"
#include "host/clouds/cloud.h"
#include "host/measurement/record.h"
#include "vexo/stereo_camera.h"

#include <opencv2/core.hpp>

#include <array>
#include <vector>

namespace vexo {

/// Seconds of the stages of a run.
struct StageTimes {
    double frames = 0.0;      ///< handing the frames over
    double decode = 0.0;      ///< decoding, unwrapping, rectification
    double triangulate = 0.0; ///< matching and triangulation
};

/// The pictures or maps of both cameras, in the order of the library's frame indices.
using PairFrames = std::array<std::vector<cv::Mat>, 2>;

/// Runs the generator of the record's method.
/// @param frames  of the camera's input size: 8-bit pictures, or decoded maps (period numbers 8 bit, phases float)
///                for a record with datatype 1; not changed
/// Throws Failure when the library refuses the parameters or the frames.
Cloud match(iStereoCamera& camera, const PairFrames& frames, MatchingRecord record, bool interpolate,
    StageTimes* times = nullptr);

/// Which pixels match() would measure. CV_8U, 255: measured.
cv::Mat match_mask(iStereoCamera& camera, const PairFrames& frames, MatchingRecord record, bool interpolate);

/// Which pixels a cloud has points of. CV_8U, 255: measured.
cv::Mat mask_of(const Cloud& cloud);

/// Takes out the points beyond the record's limits of disparity. Phases are matched without them and the limits only
/// drop what was matched: the same frames need not be matched again. False, and nothing was changed: a depth lies so
/// near a limit that its last bit would decide.
bool keep_within_limits(Cloud& matched, const MatchingRecord& record, const Geometry& geometry);

/// Disparities of the measured points, by their depths.
std::vector<float> disparities_of(const Cloud& cloud, const Geometry& geometry);

} // namespace vexo
