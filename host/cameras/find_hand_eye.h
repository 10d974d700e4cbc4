#pragma once

#include "host/cameras/hand_eye.h"
#include "host/cameras/hand_eye_view.h"
#include "host/verdict/finding.h"

#include <cstddef>
#include <vector>

namespace vexo {

/// How far the board's turns in the camera spread about their mean, as standard deviations: about the axis of most
/// turning, and about the second one at right angles to it. One axis alone leaves the camera's place along it open.
struct TurnSpread {
    double first_deg = 0.0, second_deg = 0.0;
};

/// Camera and robot, and how far they can be trusted.
struct FoundHandEye {
    HandEye solved;
    std::vector<HandEyeResidual> residuals; ///< by view
    std::vector<HandEyeResidual> held_out;  ///< by view, from the others alone; NaN where these determine no camera
    HandEyeResidual rms, held_out_rms;
    std::vector<std::size_t> worst; ///< up to three views, the worst first, by their held-out residuals
    TurnSpread spread;
    std::vector<Finding> findings;
};

/// Solves, tests each view by the others (leave-one-out; 20 folds of many views), and where the poses do not fit tries
/// other meanings of their numbers: orders, units, the inverse, the other setup, and pictures that are shifted by one.
/// Throws Failure for fewer than four views, for views that turn too little, and for poses that determine no camera.
FoundHandEye find_hand_eye(const std::vector<HandEyeView>& views, const HandEyeRequest& request);

} // namespace vexo
