#pragma once

#include "host/files/marker.h"

#include <string>
#include <vector>

namespace vexo {

class TemporaryFolder;
class Changes;

/// Throws Failure when `folder` is not a folder that can be written, and could not be made.
void check_output_folder(const std::string& folder);

/// Whose files a folder is to hold.
struct Owner {
    std::string command; ///< as the marker says it
    /// Files that say what the others are, such as the report: removed first and written last, in this order, so that
    /// none ever stands beside files of another run.
    std::vector<std::string> reports;
    /// Commands whose files in the folder speak of this one's: those go when this one writes. "compare" stands for
    /// "compare acceptance.json", too.
    std::vector<std::string> dependents = {};
    bool among_others = false; ///< single files, in a folder that may hold others
    bool force = false;        ///< replaces what has the names of its files, whoever wrote that
};

/// Files that are written together or not at all: they are kept in memory until commit(). Whatever goes wrong there,
/// and when a signal ends the program (abandon_unfinished()), the folder stays as it was. A marker in the folder lists
/// the files that were written there, and only those are replaced or removed, as long as nobody changed them.
class OutputFolder {
public:
    /// Checks the folder at once, so that a mistyped path does not cost the whole computation. Throws UsageFailure when
    /// it holds what another command or the user put there.
    OutputFolder(std::string folder, Owner owner);

    /// Throws Failure when one of these pictures stands in the folder: the next run would take results for frames.
    void stay_out_of(const std::vector<std::string>& pictures) const;
    void add(const std::string& name, std::vector<unsigned char> bytes);
    void add(const std::string& name, const std::string& text);
    /// Makes the folder, writes all files beside their places, and then gives them their names; what an earlier run of
    /// the same command left goes. Throws UsageFailure that names a file which is not to be replaced, TemporaryFailure
    /// when there is no space, Failure otherwise.
    /// @return names of the earlier run's files that stay, because somebody changed them
    std::vector<std::string> commit();
    const std::string& path() const { return _folder; }

private:
    struct File {
        std::string name;
        std::vector<unsigned char> bytes;
        std::string hash; ///< once commit() has begun
    };

    std::string _place(const std::string& name) const;
    Marker _known() const;
    bool _is_mine(const WrittenFile& file) const;
    bool _is_new(const std::string& name) const;
    void _refuse_foreign_folder(const Marker& known) const;
    void _refuse_foreign_files(const Marker& known) const;
    void _order_reports();
    void _write(const TemporaryFolder& unfinished);
    Marker _both(Marker known) const;
    std::vector<std::string> _left_over(const Marker& known, std::vector<std::string>& changed) const;
    void _remove_emptied(const std::vector<std::string>& left_over) const;
    void _replace(Changes& changes, const Marker& known, const std::vector<std::string>& left_over) const;

    std::string _folder;
    Owner _owner;
    std::vector<File> _files;
};

} // namespace vexo
