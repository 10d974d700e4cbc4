#pragma once

#include "host/calibration/board_views.h"
#include "host/cameras/camera_file.h"

#include <vector>

namespace vexo {

/// What measuring the markers by their grey values did.
struct Refinement {
    bool made = false;
    int markers = 0;                               ///< measured, of all pictures
    int not_fitted = 0, far_off = 0, doubtful = 0; ///< left out, see RefinedMarkers
    int views_added = 0;                           ///< that the recogniser had refused in one of the cameras
    double sigma = 0.0;                            ///< px, rms of the markers' own standard deviations
    double blur_over_gap = 0.0;                    ///< median over the pictures, see RefinedMarkers
    double seconds = 0.0;
};

/// Measures the markers of all views again, see refine_markers(), and puts them in the place of those that were
/// recognised. A picture in which the board was not recognised is looked at, too, where the other camera's pose says
/// where the board must be: it counts as recognised when most markers are there.
/// @param used     views that the cameras were found from; those that are added become so
/// @param cameras  of the views, in raw camera-0 axes
Refinement refine_views(
    BoardViews& views, std::vector<bool>& used, const BoardFile& board, const std::vector<CalibratedCamera>& cameras);

} // namespace vexo
