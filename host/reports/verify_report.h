#pragma once

#include "host/calibration/verify.h"
#include "host/files/json_file.h"

#include <string>
#include <vector>

namespace vexo {

/// A line for each picture, then one for each question.
std::vector<std::string> verified_lines(const Verified& v, const BoardFile& board);

Json verified_json(const Verified& v, const BoardFile& board);

} // namespace vexo
