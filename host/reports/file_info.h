#pragma once

#include "host/files/json_file.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vexo {

/// What is asked of a file.
struct InfoRequest {
    std::string file;
    std::optional<std::pair<double, double>> depth; ///< also the disparities of these depths, near and far, positive
};

/// What a camera, stereo, hmat, table or PLY file holds. Throws Failure for any other file.
Json describe_file(const InfoRequest& request);

/// The same, one line for each figure.
std::vector<std::string> info_lines(const Json& info);

} // namespace vexo
