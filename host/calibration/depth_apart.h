#pragma once

#include "host/cameras/camera_file.h"

#include <vector>

namespace vexo {

/// How far apart two calibrations of one pair put the same pixels, mm.
struct DepthApart {
    double distance = 0; ///< from camera 0, at which they were compared
    double depth = 0;    ///< rms of the difference of the depths
    double shape = 0;    ///< rms of the distances that the best rigid motion leaves: what bends and scales a cloud
};

/// Points at that distance, triangulated with `a` and with `b` from where `whole` sees them. NaN when the cameras see
/// too few of them in common.
/// @param seen  pixels of camera 0 in which something was seen: elsewhere the lens is anybody's guess
DepthApart depth_apart(const std::vector<CalibratedCamera>& whole, const std::vector<CalibratedCamera>& a,
    const std::vector<CalibratedCamera>& b, const std::vector<cv::Point2d>& seen, double distance);

} // namespace vexo
