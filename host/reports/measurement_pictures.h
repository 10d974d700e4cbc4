#pragma once

#include "host/files/json_file.h"
#include "host/files/output_folder.h"
#include "host/measurement/measure.h"

namespace vexo {

/// Adds cloud, maps, pictures and the report, after completing it.
void add_files(OutputFolder& out, const Measured& measured, Json& report);

} // namespace vexo
