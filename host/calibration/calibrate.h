#pragma once

#include "base/on_step.h"
#include "host/calibration/calibrated.h"
#include "vexo/records.h"

#include <vector>

namespace vexo {

struct CalibrateRequest {
    double ruler_x = 0, ruler_y = 0; ///< mm, the printed 100 mm rulers as measured; 0: not given
    double focal = 0;                ///< px, to start from; 0: none
    int flags = 1;                   ///< CALIB_* of OpenCV; 1, CALIB_USE_INTRINSIC_GUESS, without a focal length: none
    RectifyParam rectify;
    bool refine = true;       ///< measure the markers by their grey values, and calibrate again, twice
    bool hold_out = true;     ///< also calibrate from each half of the views, and hold the other half against it
    std::vector<int> dropped; ///< numbers of views that were left out on request: for the report
};

/// The board with the pitch that the printer really made: the mean of what the rulers say, or ruler x alone where the
/// board's shape says by how much y differs.
BoardFile corrected_board(const BoardFile& board, const CalibrateRequest& request);

/// Times that markers are measured with the cameras found before.
constexpr int refine_rounds = 2;

/// Steps that calibrate() announces, at most.
constexpr int calibrate_steps = 2 + refine_rounds;

/// Calibrates the camera, or the pair, from the views in which the board was recognised by all cameras.
/// @param views  after recognise() with `board`
/// @param board  as corrected_board() answers
/// @param printed_pitch_mm  of the board file, for the report
/// Throws Failure when no view can be used or they determine no calibration, and Stopped.
Calibrated calibrate(const BoardViews& views, const BoardFile& board, double printed_pitch_mm,
    const CalibrateRequest& request, const OnStep& on_step = {});

} // namespace vexo
