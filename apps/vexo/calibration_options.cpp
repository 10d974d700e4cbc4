#include "calibration_options.h"

#include "base/failure.h"
#include "options.h"

#include <CLI/CLI.hpp>

namespace vexo::app {

namespace {

RectifiedPair rectified_pair(const std::string& text)
{
    const std::vector<double> numbers = parse_numbers(text, ',', 4, "--rectified", "F,CX,CY,BASELINE");
    return { numbers[0], numbers[1], numbers[2], numbers[3] };
}

} // namespace

void add_calibration(CLI::App& command, TypedCalibration& calibration, const std::string& what_for)
{
    CLI::Option* files = command.add_option("--calib", calibration.files,
        what_for
            + ": the folder that vexo calibrate wrote; cameras.yaml, or two YAML files of one camera each; "
              "stereo.yaml; the three files of an hmat set; OpenCV's intrinsics.yml and extrinsics.yml");
    files->expected(1, 3);
    command
        .add_option("--rectified", calibration.rectified,
            "F,CX,CY,BASELINE instead of --calib, for pictures that are rectified already; px, px, px, length")
        ->excludes(files);
    command
        .add_option(
            "--unit", calibration.unit, "of the calibration's lengths: um, mm, cm, m or in (default: as its file says)")
        ->check(CLI::IsMember({ "um", "mm", "cm", "m", "in" }));
}

Stereo open_typed(const TypedCalibration& calibration, const StereoCameraParam& param)
{
    if (calibration.rectified.empty()) return open_stereo(calibration.files, param, calibration.unit);
    return open_rectified(rectified_pair(calibration.rectified), param, calibration.unit);
}

} // namespace vexo::app
