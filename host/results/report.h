#pragma once

#include "host/files/json_file.h"
#include "host/measurement/measure.h"

namespace vexo {

/// report.json: everything that a measurement was made from and what came out.
/// @param read_seconds  that reading the frames and opening the stereo camera took
Json make_report(const Capture& capture, const Stereo& stereo, const MeasureRequest& request, const Measured& measured,
    double read_seconds);

} // namespace vexo
