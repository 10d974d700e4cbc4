#pragma once

#include <optional>
#include <string>

namespace vexo {

/// The last number in a file's name ("left_07.png": 7); none when there is no digit.
std::optional<int> number_in_name(const std::string& path);

} // namespace vexo
