#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vexo {

class TemporaryFolder;

/// Throws Failure when `folder` is not a folder that can be written, and could not be made.
void check_output_folder(const std::string& folder);

/// Files that are written together or not at all: they are kept in memory until commit(). Whatever goes wrong there,
/// and when a signal ends the program (abandon_unfinished()), the folder stays as it was.
class OutputFolder {
public:
    /// Checks the folder at once, so that a mistyped path does not cost the whole computation.
    explicit OutputFolder(std::string folder);

    /// Throws Failure when one of these pictures stands in the folder: the next run would take results for frames.
    void stay_out_of(const std::vector<std::string>& pictures) const;
    void add(const std::string& name, std::vector<unsigned char> bytes);
    void add(const std::string& name, const std::string& text);
    /// commit() removes the file of that name, if there is one and it was not added: the rest of an earlier series.
    void drop(const std::string& name);
    /// Makes the folder, writes all files beside their places, and then gives them their names. Throws Failure.
    void commit();
    const std::string& path() const { return _folder; }

private:
    std::string _place(const std::string& name) const;
    void _write(const TemporaryFolder& unfinished) const;
    void _give_names(TemporaryFolder& unfinished) const;

    std::string _folder;
    std::vector<std::pair<std::string, std::vector<unsigned char>>> _files;
    std::vector<std::string> _dropped;
};

} // namespace vexo
