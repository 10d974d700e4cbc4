#pragma once

#include "options.h"
#include "sim/calibration.h"
#include "sim/pattern.h"
#include "sim/rig.h"

#include <string>
#include <vector>

/// What can be said on the command line of vexo simulate.
namespace vexo::app {

struct SimulateOptions {
    std::string scene, out;
    std::vector<int> size = { 1280, 1024 };     ///< of the cameras, px
    std::vector<int> projector = { 1024, 768 }; ///< px
    std::string method = name_of(sim::RigOptions().method);
    sim::RigOptions rig;
    std::vector<double> exposures { 1 }; ///< several: a capture of the scene at each
    int turntable = 0;                   ///< captures of the scene on a turntable, evenly around; 0: one as it stands
    std::string patterns, swap, board;
    sim::CalibrationOptions photos;
    std::string robot;
    std::vector<double> robot_noise = { sim::RobotOptions().noise_mm, sim::RobotOptions().noise_deg };
    std::vector<CLI::Option*> only_scenes, only_photos; ///< what has no meaning for the other kind of series
};

/// Declares them. `o` must live as long as the command.
void declare(CLI::App& command, SimulateOptions& o);

/// Folder of one of several exposures: "e0.25".
std::string exposure_folder(double exposure);

/// The rig, from options given in other words, at the first exposure. Throws Failure.
sim::RigOptions rig_of(const SimulateOptions& o);

/// The photos of a board. Throws Failure.
sim::CalibrationOptions photos_of(const SimulateOptions& o);

/// What the rig projects: the pattern of its method, or the pictures of --patterns, for which the rig is then set.
/// Throws Failure.
sim::Pattern pattern_of(const SimulateOptions& o, sim::RigOptions& rig);

} // namespace vexo::app
