#include "host/files/temporary_folder.h"

#include "base/boundary.h"
#include "base/failure.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {

namespace fs = std::filesystem;

namespace {

/// What is to be cleared away when a signal ends the program. Never destroyed: another thread may outlive main().
struct Registry {
    std::mutex mutex; ///< held while files take their names
    std::vector<TemporaryFolder*> folders;
};

Registry& registry()
{
    static Registry* const only = new Registry;
    return *only;
}

/// Another thread may still be adding files to it.
void remove_whole(const std::string& folder)
{
    for (int attempt = 0; attempt < 1000; ++attempt) {
        std::error_code error;
        fs::remove_all(folder, error);
        if (!error) return;
        ::usleep(1000);
    }
}

/// Opens the folder and locks it; -1: another process has it, or it was removed meanwhile.
int lock_folder(const std::string& path)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat mine = {}, there = {};
    const bool held = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &mine) == 0
        && ::stat(path.c_str(), &there) == 0 && mine.st_ino == there.st_ino && mine.st_dev == there.st_dev;
    if (held) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

void make_with_parents(const fs::path& folder, std::vector<std::string>& made)
{
    if (folder.empty() || fs::is_directory(folder)) return;
    make_with_parents(folder.parent_path(), made);
    if (::mkdir(folder.c_str(), 0777) == 0)
        made.push_back(folder.string());
    else if (errno != EEXIST)
        fail_with(errno, folder.string() + ": the folder cannot be made");
}

} // namespace

TemporaryFolder::TemporaryFolder()
{
    const Uninterrupted alone;
    std::error_code error;
    const fs::path parent = fs::temp_directory_path(error);
    std::string pattern = (parent / "vexo-XXXXXX").string();
    if (error || ::mkdtemp(pattern.data()) == nullptr)
        throw Failure(pattern + ": no temporary folder can be made; set TMPDIR to a folder that can be written");
    _path = pattern;
    registry().folders.push_back(this);
}

TemporaryFolder::TemporaryFolder(const std::string& folder)
{
    constexpr int attempts = 3000, pause_us = 10000; // half a minute: another process needs it for a moment only
    int why = EBUSY;
    for (int attempt = 0; attempt < attempts && _lock < 0; ++attempt) {
        if (attempt > 0) ::usleep(pause_us);
        const Uninterrupted alone;
        if (const std::exception_ptr fault = exception_of([&] { make(folder); })) {
            _remove_made();
            std::rethrow_exception(fault);
        }
        _path = (fs::path(folder) / ".vexo-tmp").string();
        const bool made = ::mkdir(_path.c_str(), 0777) == 0;
        why = made ? EBUSY : errno;
        if (!made && why != EEXIST) break;
        _lock = lock_folder(_path);
        if (_lock < 0) continue;
        registry().folders.push_back(this);
        std::error_code ignored;
        for (const auto& left : fs::directory_iterator(_path, ignored))
            fs::remove_all(left.path(), ignored);
    }
    if (_lock >= 0) return;
    const Uninterrupted alone;
    _remove_made();
    if (why == EEXIST || why == EBUSY) throw TemporaryFailure(_path + ": another vexo is at work in it; try again");
    fail_with(why, _path + ": cannot be made");
}

TemporaryFolder::~TemporaryFolder()
{
    const Uninterrupted alone;
    remove_whole(_path);
    auto& all = registry().folders;
    all.erase(std::remove(all.begin(), all.end(), this), all.end());
    if (_lock < 0) return;
    _remove_made();
    ::close(_lock);
}

void TemporaryFolder::keep()
{
    _made.clear();
}

void TemporaryFolder::make(const std::string& folder)
{
    make_with_parents(fs::path(folder).lexically_normal(), _made);
}

void TemporaryFolder::_remove_made()
{
    for (; !_made.empty(); _made.pop_back())
        ::rmdir(_made.back().c_str());
}

Uninterrupted::Uninterrupted()
{
    registry().mutex.lock();
}

Uninterrupted::~Uninterrupted()
{
    registry().mutex.unlock();
}

void abandon_unfinished()
{
    Registry& all = registry();
    all.mutex.lock(); // for good: what waits for it must not go on
    for (TemporaryFolder* folder : all.folders) {
        remove_whole(folder->_path);
        folder->_remove_made();
    }
}

} // namespace vexo
