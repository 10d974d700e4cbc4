#pragma once

#include "host/files/json_file.h"

#include <string>
#include <vector>

namespace vexo {

/// Names of files with the SHA-256 of what they hold now, in the order of `paths`; null for one that is not to be
/// read any more.
Json hashes_of(const std::vector<std::string>& paths);

/// One entry of hashes_of(), of a hash that is known.
Json named_hash(const std::string& path, const std::string& hash);

/// SHA-256 of a JSON value as its shortest text: the same values give the same hash.
std::string hash_of(const Json& json);

} // namespace vexo
