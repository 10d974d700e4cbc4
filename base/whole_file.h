#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Files that are read whole, and files that are written whole or not at all.
namespace vexo {

/// Reads a whole regular file of 1 to `limit` bytes; false for anything else, and `bytes` is left alone.
/// Opens without blocking, so that a FIFO or a device in the file's place answers false instead of waiting.
bool read_file(const std::string& path, std::size_t limit, std::string& bytes);

/// The bytes of a regular file. Throws Failure that says whether it is absent, empty, larger than `limit` or not to be
/// read.
std::string read_bytes(const std::string& path, std::size_t limit);

/// Replaces `path` by a file with these bytes, or leaves everything as it was and answers false: the bytes go
/// into a temporary file beside the target, reach the disk, and only then take the target's name. A full disk,
/// a read-only folder or a kill at any moment leaves the old file or the new one, never a mixture.
/// A symbolic link is followed: the file that it names is replaced, or made, and the link stays. False for a loop.
/// Where it answers false errno says why.
bool write_file(const std::string& path, const void* bytes, std::size_t size);
bool write_file(const std::string& path, const std::string& bytes);
bool write_file(const std::string& path, const std::vector<unsigned char>& bytes);

/// Whether two names mean one file, however they are spelled, also of a file that is still to be written.
bool same_file(const std::string& a, const std::string& b);

} // namespace vexo
