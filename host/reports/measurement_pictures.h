#pragma once

#include "host/captures/capture.h"
#include "host/files/json_file.h"
#include "host/files/output_folder.h"
#include "host/measurement/measure.h"

namespace vexo {

/// What of a measurement is written.
enum class ResultFiles {
    all,        ///< cloud, maps, pictures, page and report
    no_pictures ///< what other commands read: cloud, depth, texture and report
};

/// Adds them, after completing the report.
void add_files(OutputFolder& out, const Capture& capture, const Measured& measured, Json& report,
    ResultFiles which = ResultFiles::all);

} // namespace vexo
