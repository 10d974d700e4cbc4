#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <string>

/// YAML that cannot hurt: checked before it is parsed, collected in memory before it is written.
namespace vexo {

/// Largest YAML file that is read, in bytes. A stereo camera file has about 6 KB.
constexpr std::size_t max_yaml_bytes = std::size_t { 1 } << 20;

/// Whether a text is the plain kind of YAML that cv::FileStorage writes. OpenCV 4.6's parser loops for ever on
/// an unfinished "!!binary |", and nests until the stack ends on brackets; no catch helps against either, so
/// every text passes this check before it is parsed.
bool yaml_is_plain(const std::string& text);

/// Opens a YAML file for reading, parsed from memory, without its comments: after a '#' that begins a line or follows
/// a blank any byte may stand. False for whatever is not a readable, plain YAML file; prints nothing and throws
/// nothing. `storage` is open only on success.
bool open_yaml(const std::string& path, cv::FileStorage& storage);

/// Reads an integer, which may be written as a real: 640 and 640. are one size. False, and `value` kept, for anything
/// else.
bool read_whole(const cv::FileNode& node, int& value);

/// Storage that collects YAML in memory; close_yaml() writes it. Never write a storage to a path: it does not
/// report a full disk, and a kill leaves half a file.
cv::FileStorage memory_yaml();

/// Writes what a memory_yaml() storage collected, whole or not at all.
bool close_yaml(cv::FileStorage& storage, const std::string& path);

} // namespace vexo
