#include "host/files/output_folder.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/parallel.h"
#include "base/whole_file.h"
#include "host/files/changes.h"
#include "host/files/hash.h"
#include "host/files/temporary_folder.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace vexo {

namespace fs = std::filesystem;

namespace {

/// The first file in a folder that is no working file of OutputFolder's; empty: none.
std::string something_in(const std::string& folder)
{
    std::string first;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
        const std::string name = entry.path().filename().string();
        if (name == ".vexo-tmp" || name == marker_name) continue;
        if (first.empty() || name < first) first = name;
    }
    return first;
}

} // namespace

void check_output_folder(const std::string& folder)
{
    std::error_code ignored;
    if (folder.empty()) throw UsageFailure("--out: name a folder");
    fs::path existing = fs::absolute(folder, ignored);
    if (fs::exists(existing, ignored) && !fs::is_directory(existing, ignored))
        throw UsageFailure(folder + ": is a file; name a folder for the results");
    while (!existing.empty() && !fs::exists(existing, ignored) && existing.has_relative_path())
        existing = existing.parent_path();
    if (!fs::is_directory(existing, ignored))
        throw UsageFailure(folder + ": the folder cannot be made: " + existing.string() + " is not a folder");
    if (::access(existing.c_str(), W_OK | X_OK) != 0)
        fail_with(errno, folder + ": the folder cannot be made or written, because of " + existing.string());
}

OutputFolder::OutputFolder(std::string folder, Owner owner)
    : _folder(std::move(folder))
    , _owner(std::move(owner))
{
    check_output_folder(_folder);
    _refuse_foreign_folder(_known());
}

void OutputFolder::stay_out_of(const std::vector<std::string>& pictures) const
{
    for (const std::string& picture : pictures) {
        std::error_code ignored;
        if (!fs::equivalent(fs::absolute(picture, ignored).parent_path(), _folder, ignored)) continue;
        throw UsageFailure(
            _folder + ": holds the frames, and would hold the results as more of them; name another folder");
    }
}

void OutputFolder::add(const std::string& name, std::vector<unsigned char> bytes)
{
    _files.push_back({ name, std::move(bytes), {} });
}

void OutputFolder::add(const std::string& name, const std::string& text)
{
    add(name, std::vector<unsigned char>(text.begin(), text.end()));
}

std::string OutputFolder::_place(const std::string& name) const
{
    return (fs::path(_folder) / name).string();
}

/// A damaged marker lists nothing for one who replaces files in any case.
Marker OutputFolder::_known() const
{
    Marker known;
    const std::exception_ptr damaged = exception_of([&] { known = read_marker(_folder); });
    if (damaged && !_owner.force) std::rethrow_exception(damaged);
    return known;
}

bool OutputFolder::_is_mine(const WrittenFile& file) const
{
    const auto wrote_it = [&file](const std::string& command) {
        return file.command == command || file.command.rfind(command + " ", 0) == 0;
    };
    const auto& also = _owner.dependents;
    return file.command == _owner.command || std::any_of(also.begin(), also.end(), wrote_it);
}

bool OutputFolder::_is_new(const std::string& name) const
{
    return std::any_of(_files.begin(), _files.end(), [&name](const File& file) { return file.name == name; });
}

void OutputFolder::_refuse_foreign_folder(const Marker& known) const
{
    if (_owner.among_others || _owner.force) return;
    const auto own = [this](const auto& entry) { return entry.second.command == _owner.command; };
    if (std::any_of(known.begin(), known.end(), own)) return;
    const std::string stands = something_in(_folder);
    if (stands.empty()) return;
    const std::string whose = known.empty() ? "" : " and other files of vexo " + known.begin()->second.command;
    throw UsageFailure(_folder + ": holds " + stands + whose + ", which vexo " + _owner.command
        + " did not write; name another folder, or replace files of the same names with --force");
}

void OutputFolder::_refuse_foreign_files(const Marker& known) const
{
    for (const File& file : _files) {
        const std::string hash = hash_of_file(_place(file.name));
        if (hash.empty() || hash == file.hash || _owner.force) continue;
        const auto listed = known.find(file.name);
        if (listed != known.end() && listed->second.holds(hash) && _is_mine(listed->second)) continue;
        std::string why = ": stands there, and vexo " + _owner.command + " did not write it";
        if (listed != known.end())
            why = listed->second.holds(hash) ? ": belongs to vexo " + listed->second.command
                                             : ": was changed since vexo " + listed->second.command + " wrote it";
        throw UsageFailure(_place(file.name) + why + "; name another place, or replace it with --force");
    }
}

/// The files that say what the others are come last.
void OutputFolder::_order_reports()
{
    const auto rank = [this](const File& file) {
        const auto at = std::find(_owner.reports.begin(), _owner.reports.end(), file.name);
        return at == _owner.reports.end() ? 0 : 1 + (at - _owner.reports.begin());
    };
    std::stable_sort(_files.begin(), _files.end(), [&rank](const File& a, const File& b) { return rank(a) < rank(b); });
}

void OutputFolder::_write(const TemporaryFolder& unfinished)
{
    in_parallel(_files.size(), [&](std::size_t i) {
        if (!write_file(unfinished / std::to_string(i), _files[i].bytes))
            fail_with(errno, _place(_files[i].name) + ": cannot be written");
    });
}

/// The marker for the time in which files are replaced: whichever a kill leaves is known by the next run.
Marker OutputFolder::_both(Marker known) const
{
    for (const File& file : _files) {
        WrittenFile& written = known[file.name];
        written.command = _owner.command;
        if (!written.holds(file.hash)) written.hashes.push_back(file.hash);
    }
    return known;
}

/// What earlier runs wrote and this one does not; `changed` gets those that somebody changed since.
std::vector<std::string> OutputFolder::_left_over(const Marker& known, std::vector<std::string>& changed) const
{
    std::vector<std::string> left_over;
    for (const auto& [name, file] : known) {
        if (!_is_mine(file) || _is_new(name)) continue;
        const std::string hash = hash_of_file(_place(name));
        if (!hash.empty()) (file.holds(hash) ? left_over : changed).push_back(name);
    }
    return left_over;
}

void OutputFolder::_replace(Changes& changes, const Marker& known, const std::vector<std::string>& left_over) const
{
    changes.write(_place(marker_name), marker_text(_both(known)));
    for (const std::string& name : _owner.reports)
        if (_is_new(name)) changes.remove(_place(name));
    for (const std::string& name : left_over)
        changes.remove(_place(name));
}

/// Folders in the folder that what is left over was the last in.
void OutputFolder::_remove_emptied(const std::vector<std::string>& left_over) const
{
    for (const std::string& name : left_over)
        for (fs::path inside = fs::path(name).parent_path(); !inside.empty(); inside = inside.parent_path())
            if (::rmdir(_place(inside.string()).c_str()) != 0) break; // not empty, or a link
}

std::vector<std::string> OutputFolder::commit()
{
    _order_reports();
    in_parallel(_files.size(), [&](std::size_t i) { _files[i].hash = sha256(_files[i].bytes); });
    TemporaryFolder unfinished(_folder);
    const Marker known = _known();
    _refuse_foreign_folder(known);
    _refuse_foreign_files(known);
    std::vector<std::string> changed;
    const std::vector<std::string> left_over = _left_over(known, changed);
    _write(unfinished);

    const Uninterrupted alone;
    Changes changes(unfinished);
    _replace(changes, known, left_over);
    for (std::size_t i = 0; i < _files.size(); ++i)
        changes.put(unfinished / std::to_string(i), _place(_files[i].name));
    Marker written;
    for (const auto& [name, file] : known)
        if (!_is_mine(file)) written[name] = file;
    for (const File& file : _files)
        written[file.name] = { _owner.command, { file.hash } };
    changes.write(_place(marker_name), marker_text(written));
    changes.keep();
    unfinished.keep();
    _remove_emptied(left_over);
    return changed;
}

} // namespace vexo
