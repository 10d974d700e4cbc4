#pragma once

#include "host/calibration/board_views.h"
#include "host/cameras/camera_file.h"

#include <vector>

namespace vexo {

/// What is done with pictures that the recogniser refused.
enum class Refused {
    look, ///< the other camera's pose says where the markers must be
    leave ///< nothing: where the cameras themselves are in doubt, a picture found by them would speak for them
};

/// What measuring the markers by their grey values did.
struct Refinement {
    bool made = false;
    int markers = 0;                               ///< measured, of all pictures
    int not_fitted = 0, far_off = 0, doubtful = 0; ///< left out, see RefinedMarkers
    int views_added = 0;                           ///< that the recogniser had refused in one of the cameras
    int pictures_kept = 0;      ///< that keep their recognised markers, since too few of these could be measured
    double sigma = 0.0;         ///< px, rms of the markers' own standard deviations
    double blur_over_gap = 0.0; ///< median over the pictures, see RefinedMarkers
    double seconds = 0.0;
};

/// Measures the markers of all views again, see refine_markers(), and puts them in the place of those that were
/// recognised. A picture in which the board was not recognised is looked at, too, where the other camera's pose says
/// where the board must be: it counts as recognised when most markers are there. A picture of which fewer than 60 % of
/// the recognised markers can be measured keeps these: markers that a changed lens shows elsewhere than the cameras say
/// are left out by the fit, and the rest would look as if nothing had changed.
/// @param used     views that the cameras were found from; those that are added become so
/// @param cameras  of the views, in raw camera-0 axes
Refinement refine_views(BoardViews& views, std::vector<bool>& used, const BoardFile& board,
    const std::vector<CalibratedCamera>& cameras, Refused refused = Refused::look);

} // namespace vexo
