#pragma once

#include "host/reports/file_info.h"

namespace vexo {

/// What a folder of this program is, whether it is whole, and what its cameras see:
///
/// - `kind`, and the `command` that wrote it;
/// - `whole`: null without a marker, else whether each listed file is as it was written; `missing` and `changed` name
///   the others;
/// - of results and of folders with the cameras of a pair: `unit`, and at the `depth` that was measured, asked for
///   (the middle of the request's), or at which the optical axes meet: `field_of_view` (width, height), `per_px`
///   along the picture, and `depth_of_a_tenth_px` of disparity; results add the `expected_sigma` of the depth.
///
/// Throws Failure for a folder that holds nothing of this program.
Json describe_folder(const InfoRequest& request);

/// The same for people, with units.
std::vector<std::string> folder_lines(const Json& info);

} // namespace vexo
