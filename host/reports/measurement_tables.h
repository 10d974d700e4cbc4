#pragma once

#include "host/captures/capture.h"
#include "host/files/json_file.h"
#include "host/measurement/measured.h"

#include <string>

/// A measurement's figures, as HTML.
namespace vexo {

/// The few that are looked at first.
std::string facts_html(const Measured& measured, const Json& report);

/// All of them.
std::string figures_html(const Measured& measured, const Json& report);

/// Which files, program and parameters.
std::string provenance_html(const Capture& capture, const Json& report);

} // namespace vexo
