#pragma once

#include "host/cameras/stereo.h"

#include <string>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

/// How a command is told which calibration to measure with.
namespace vexo::app {

struct TypedCalibration {
    std::vector<std::string> files; ///< a folder, or one to three files
    std::string rectified;          ///< F,CX,CY,BASELINE of pictures that are rectified already
    std::string unit;               ///< of lengths; empty: as the files say

    bool given() const { return !files.empty() || !rectified.empty(); }
};

/// Declares --calib, --rectified and --unit. `calibration` must live as long as the command.
void add_calibration(CLI::App& command, TypedCalibration& calibration, const std::string& what_for);

/// Throws Failure.
Stereo open_typed(const TypedCalibration& calibration, const StereoCameraParam& param);

} // namespace vexo::app
