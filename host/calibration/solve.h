#pragma once

#include "host/calibration/board_views.h"
#include "host/cameras/camera_file.h"

#include <optional>
#include <vector>

namespace vexo {

/// Where the solver begins, and what it leaves fixed.
struct SolveOptions {
    double focal = 0.0; ///< px, to start from; 0: none
    int flags = 1;      ///< CALIB_* of OpenCV; 1, CALIB_USE_INTRINSIC_GUESS, without a focal length: none
};

/// Cameras that put the markers where they were seen.
struct Solved {
    std::vector<CalibratedCamera> cameras;     ///< of a pair in raw camera-0 axes
    std::vector<std::vector<double>> view_rms; ///< [camera][view] px, NaN for views that were not used
    double rms = 0.0;                          ///< px; of a pair, of both cameras together
};

/// Calibrates the camera, or the pair, from the markers of the views: each camera alone, then both with a fixed pose
/// between them, starting from these. The functions, flags and criteria of the library's calibrators, which recognise
/// pictures themselves and so can use no other markers: of the same markers both make the same cameras, bit for bit.
/// Views with fewer than five markers are left out. A bowed board is taken for a flat one first, since only a plane
/// lets OpenCV find a focal length to start from.
/// @param use  views to calibrate from
/// @return nothing for views that determine no calibration
std::optional<Solved> solve_cameras(
    const BoardViews& views, const BoardFile& board, const std::vector<bool>& use, const SolveOptions& options);

} // namespace vexo
