#pragma once

#include "calibration_options.h"
#include "host/captures/choose_method.h"
#include "host/measurement/parameters.h"
#include "options.h"
#include "vexo/records.h"

#include <string>
#include <vector>

/// What can be said on the command line of vexo measure.
namespace vexo::app {

struct MeasureOptions {
    std::vector<std::string> folders; ///< as typed
    bool exposures = false;           ///< the folders hold one scene at several exposures
    CaptureFiles files;               ///< of exposures the first
    std::vector<CaptureFiles> sets;   ///< exposures to merge; empty: there is one capture
    FrameOptions frames;
    std::string out, disparity, depth; ///< the ranges as typed
    TypedCalibration calib;
    StereoCameraParam camera;
    int steps = 4;
    bool pictures = true;
    bool accept_verdict = false; ///< exit code 0 whatever the findings say
    MeasureRequest request;
    /// Options that other methods have are mistakes, not wishes to be passed over.
    std::vector<CLI::Option*> phases, gray, multi, sgbm;
};

/// Declares them. `o` must live as long as the command.
void declare(CLI::App& command, MeasureOptions& o);

/// Makes a request of what was typed, and finds where frames and calibration are. Throws Failure.
void complete(MeasureOptions& o);

/// Throws Failure for the first option that the method does not have.
void reject_foreign(const MeasureOptions& o, Method method);

} // namespace vexo::app
