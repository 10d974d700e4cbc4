#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace vexo {

/// SHA-256 of the bytes (FIPS 180-4) as 64 hexadecimal digits: two files with one hash are the same file.
std::string sha256(const void* bytes, std::size_t size);
std::string sha256(const std::string& bytes);
std::string sha256(const std::vector<unsigned char>& bytes);

} // namespace vexo
