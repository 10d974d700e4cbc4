#include "host/files/output_folder.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/whole_file.h"
#include "host/files/temporary_folder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace vexo {

namespace fs = std::filesystem;

void check_output_folder(const std::string& folder)
{
    std::error_code ignored;
    if (folder.empty()) throw UsageFailure("--out: name a folder");
    fs::path existing = fs::absolute(folder, ignored);
    if (fs::exists(existing, ignored) && !fs::is_directory(existing, ignored))
        throw UsageFailure(folder + ": is a file; name a folder for the results");
    while (!existing.empty() && !fs::exists(existing, ignored) && existing.has_relative_path())
        existing = existing.parent_path();
    if (!fs::is_directory(existing, ignored) || ::access(existing.c_str(), W_OK | X_OK) != 0)
        throw Failure(folder + ": the folder cannot be made or written, because of " + existing.string());
}

OutputFolder::OutputFolder(std::string folder)
    : _folder(std::move(folder))
{
    check_output_folder(_folder);
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
    _files.emplace_back(name, std::move(bytes));
}

void OutputFolder::add(const std::string& name, const std::string& text)
{
    add(name, std::vector<unsigned char>(text.begin(), text.end()));
}

void OutputFolder::drop(const std::string& name)
{
    _dropped.push_back(name);
}

std::string OutputFolder::_place(const std::string& name) const
{
    return (fs::path(_folder) / name).string();
}

void OutputFolder::_write(const TemporaryFolder& unfinished) const
{
    in_parallel(_files.size(), [&](std::size_t i) {
        if (!write_file(unfinished / std::to_string(i), _files[i].second))
            throw Failure(_place(_files[i].first) + ": cannot be written; is the disk full, or the folder read-only?");
    });
}

/// A second name of each old file is kept until all new ones have their places, so that all can be taken back.
void OutputFolder::_give_names(TemporaryFolder& unfinished) const
{
    const auto old = [&unfinished](std::size_t i) { return unfinished / ("old" + std::to_string(i)); };
    for (std::size_t i = 0; i < _files.size(); ++i) {
        const std::string place = _place(_files[i].first);
        std::error_code error;
        const bool free = !fs::exists(place, error) || fs::is_regular_file(place, error);
        if (free) unfinished.make(fs::path(place).parent_path().string());
        if (free) ::link(place.c_str(), old(i).c_str());
        if (free && ::rename((unfinished / std::to_string(i)).c_str(), place.c_str()) == 0) continue;
        const std::string why = free ? std::strerror(errno) : "something that is not a file has this name";
        for (std::size_t k = i; k-- > 0;)
            if (::rename(old(k).c_str(), _place(_files[k].first).c_str()) != 0)
                fs::remove(_place(_files[k].first), error);
        throw Failure(place + ": cannot be written: " + why);
    }
}

void OutputFolder::commit()
{
    TemporaryFolder unfinished(_folder);
    _write(unfinished);
    const Uninterrupted alone;
    _give_names(unfinished);
    unfinished.keep();
    for (const std::string& name : _dropped) {
        const bool fresh
            = std::any_of(_files.begin(), _files.end(), [&name](const auto& file) { return file.first == name; });
        std::error_code ignored;
        if (!fresh) fs::remove(_place(name), ignored);
    }
}

} // namespace vexo
