#pragma once

#include "causes.h"
#include "frames.h"
#include "fringes.h"
#include "matching.h"
#include "report.h"
#include "rig.h"

#include <optional>
#include <string>
#include <vector>

/// One measurement: what was asked for, everything between frames and files, and how it is told.
namespace vexo::app {

class OutputFolder;
struct GlobalOptions;

/// As typed; what was not typed is chosen.
struct MeasureOptions {
    std::string folder, out, cam0, cam1, method, disparity, depth;
    std::vector<std::string> calib;
    StereoCameraParam camera;
    bool decoded = false, interpolate = false;
    std::optional<double> max_phase_diff; ///< gray code: fringe periods; multi-period: projector px
    std::optional<int> min_contrast, anchor, reject;
    int fit_points = 5, min_white = 15, max_white = 256;
    double min_modulation = 6.0; ///< grey levels
    int code_spread = 3;
    std::vector<int> periods; ///< projector px
    int steps = 4;
    int block = 5; ///< px
    std::optional<int> num_disparities;
};

struct Measurement {
    Choice choice;
    MatchingRecord record;
    FrameSet frames; ///< as read; lit frames masked after masks were made
    std::array<PixelMasks, 2> masks;
    std::array<std::vector<FringeFigures>, 2> fringes; ///< of each camera, one for each period
    RunLengths runs;
    WeakPixels weak; ///< of camera 0, multi-period
    StereoCameraPtr camera;
    Geometry geometry;
    cv::Mat texture;                  ///< rectified lit frame of camera 0
    std::string range_origin;         ///< where the disparity limits come from
    std::vector<float> any_disparity; ///< what phases match without limits
    Cloud cloud;
    CauseMap causes;
    cv::Mat disparity, depth; ///< CV_32F, NaN where nothing was measured
    StageTimes times;
    double read_seconds = 0.0, first_pass_seconds = 0.0, causes_seconds = 0.0;

    Method method() const { return choice.method; }
    /// Fringe periods in projector px; empty for other methods.
    std::vector<int> periods() const;
};

/// The line for a measurement without a single point.
std::string why_nothing(const Measurement& m);
Json make_report(const MeasureOptions& o, const Measurement& m);
/// Adds cloud, maps, pictures and the report, after completing it.
void add_files(OutputFolder& out, const Measurement& m, Json& report);
void print_summary(const GlobalOptions& global, const MeasureOptions& o, const Measurement& m, const Json& report);

} // namespace vexo::app
