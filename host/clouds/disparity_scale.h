#pragma once

namespace vexo {

/// How pixels of rectified camera 0 and disparities stand for points:
/// X = (x - cx) Z / f, Y = (y - cy) Z / f, Z = f baseline / (disparity - at_infinity).
struct DisparityScale {
    double f = 0.0, cx = 0.0, cy = 0.0; ///< px
    double baseline = 0.0;              ///< in the unit of the points
    double at_infinity = 0.0;           ///< px

    double disparity(double z) const { return f * baseline / z + at_infinity; }
    double depth(double disparity) const { return f * baseline / (disparity - at_infinity); }

    /// The change of the disparity, px, for one of the depth: absolute.
    double px_per_length(double z) const { return f * baseline / (z * z); }
};

} // namespace vexo
