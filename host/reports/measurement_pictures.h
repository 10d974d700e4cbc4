#pragma once

#include "host/captures/capture.h"
#include "host/files/json_file.h"
#include "host/files/output_folder.h"
#include "host/measurement/measure.h"

namespace vexo {

/// Adds cloud, maps, pictures, the page and the report, after completing it.
void add_files(OutputFolder& out, const Capture& capture, const Measured& measured, Json& report);

} // namespace vexo
