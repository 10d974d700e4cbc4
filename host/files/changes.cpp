#include "host/files/changes.h"

#include "base/failure.h"
#include "base/whole_file.h"
#include "host/files/temporary_folder.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <unistd.h>

namespace vexo {

namespace fs = std::filesystem;

Changes::Changes(TemporaryFolder& unfinished)
    : _unfinished(unfinished)
{
}

Changes::~Changes()
{
    for (; !_done.empty(); _done.pop_back()) {
        const auto& [place, old] = _done.back();
        if (::rename(old.c_str(), place.c_str()) != 0) ::unlink(place.c_str());
    }
}

std::string Changes::_next() const
{
    return _unfinished / ("old" + std::to_string(_done.size()));
}

void Changes::write(const std::string& place, const std::string& bytes)
{
    const std::string file = _unfinished / "text";
    if (!write_file(file, bytes)) fail_with(errno, place + ": cannot be written");
    put(file, place);
}

void Changes::put(const std::string& file, const std::string& place)
{
    std::error_code error;
    const auto status = fs::status(place, error);
    if (fs::exists(status) && !fs::is_regular_file(status))
        throw UsageFailure(place + ": cannot be written: something that is not a file has this name");
    _unfinished.make(fs::path(place).parent_path().string());
    const std::string old = _next();
    // Some file systems know no second names: there the old file makes way first.
    if (::link(place.c_str(), old.c_str()) != 0 && errno != ENOENT && ::rename(place.c_str(), old.c_str()) != 0)
        fail_with(errno, place + ": cannot be replaced");
    _done.emplace_back(place, old);
    if (::rename(file.c_str(), place.c_str()) == 0) return;
    const int why = errno;
    if (::access(place.c_str(), F_OK) == 0) ::unlink(old.c_str());
    fail_with(why, place + ": cannot be written");
}

void Changes::remove(const std::string& place)
{
    const std::string old = _next();
    if (::rename(place.c_str(), old.c_str()) == 0)
        _done.emplace_back(place, old);
    else if (errno != ENOENT)
        fail_with(errno, place + ": cannot be removed");
}

void Changes::keep()
{
    _done.clear();
}

} // namespace vexo
