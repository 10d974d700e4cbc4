#pragma once

#include <map>
#include <string>
#include <vector>

/// The marker of a folder: which files the program wrote there, so that nothing else is ever replaced or removed.
namespace vexo {

/// A file that a command wrote.
struct WrittenFile {
    std::string command;
    /// SHA-256 of what it may hold: one, or, while the files are being replaced, that of the old and of the new.
    std::vector<std::string> hashes;

    bool holds(const std::string& hash) const;
};

/// By their names in the folder.
using Marker = std::map<std::string, WrittenFile>;

constexpr const char* marker_name = ".vexo-files.json";

/// The marker of a folder; empty when there is none. Throws Failure for a damaged one.
Marker read_marker(const std::string& folder);

std::string marker_text(const Marker& marker);

/// SHA-256 of a file; empty when there is none.
std::string hash_of_file(const std::string& path);

/// Whether a file of the folder is not as the program wrote it: of files that the marker does not list nobody knows.
bool was_changed(const std::string& folder, const std::string& name);

} // namespace vexo
