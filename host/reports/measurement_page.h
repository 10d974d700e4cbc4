#pragma once

#include "host/captures/capture.h"
#include "host/files/json_file.h"
#include "host/measurement/measure.h"

#include <string>

namespace vexo {

/// What a measurement is worth and what it is made of, for people: one page that needs no other file and no network,
/// below 8 MB. Equal inputs give equal pages but for the time in the report.
/// @param report  as make_report() made it
std::string measurement_html(const Capture& capture, const Measured& measured, const Json& report);

} // namespace vexo
