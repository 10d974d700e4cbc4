#pragma once

#include "base/on_step.h"
#include "host/calibration/camera_fit.h"
#include "host/calibration/pair_fit.h"
#include "host/calibration/refine_views.h"
#include "host/verdict/finding.h"

#include <string>
#include <vector>

namespace vexo {

/// New photos of the board, held against cameras that were calibrated earlier.
struct Verified {
    BoardViews views;
    std::vector<bool> used;      ///< by view
    Refinement refinement;       ///< of the markers
    std::vector<CameraFit> fits; ///< by camera
    PairFit pair;                ///< of a pair only
    double row_median = 0;       ///< px, of all markers
    std::vector<Finding> findings;

    bool is_pair() const { return fits.size() == 2; }
};

/// Asks whether the cameras still see the board as it is: in px, rectified rows, and distances between markers in mm.
/// Markers are measured by their grey values, where these cameras can still say where they are.
/// @param cameras  one, or a pair, as read from camera files; lengths in mm
/// @param views    of as many cameras, as find_views() answers; a step is a picture
/// Throws Failure when the board is recognised in no view, for pictures of another size, and Stopped.
Verified verify_calibration(
    const std::vector<CalibratedCamera>& cameras, BoardViews views, const BoardFile& board, const OnStep& on_step = {});

} // namespace vexo
