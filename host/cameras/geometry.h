#pragma once

#include "vexo/stereo_camera.h"

namespace vexo {

/// Rectified camera 0, found by asking the stereo camera for points:
/// X = (x - cx) Z / f, Y = (y - cy) Z / f, 1 / Z = slope * disparity + offset.
struct Geometry {
    double f = 0.0;      ///< px
    double cx = 0.0;     ///< px
    double cy = 0.0;     ///< px
    double slope = 0.0;  ///< 1 / (length * px)
    double offset = 0.0; ///< 1 / length

    double depth(double disparity) const { return 1.0 / (slope * disparity + offset); }
    double disparity(double depth) const { return (1.0 / depth - offset) / slope; }
};

/// Throws Failure when the points do not lie in rectified camera-0 axes.
Geometry probe_geometry(iStereoCamera& camera);

} // namespace vexo
