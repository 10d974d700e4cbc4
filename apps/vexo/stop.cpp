#include "stop.h"

#include "common.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

/// What is to be cleared away when the program ends. Never destroyed: the waiting thread outlives main().
struct State {
    std::mutex mutex; ///< held while files take their names, and from a signal to the end
    std::atomic<bool> stopped { false };
    std::vector<std::string> unfinished; ///< folders that go with all that is in them
    std::vector<std::string> made;       ///< folders that go when they are empty, the deepest last
    int complaints = STDERR_FILENO;      ///< the standard error stream, even while it is muted
};

State& state()
{
    static State* const only = new State;
    return *only;
}

void remove_made(State& s)
{
    for (; !s.made.empty(); s.made.pop_back())
        ::rmdir(s.made.back().c_str());
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

const char* name_of_signal(int signal)
{
    return signal == SIGTERM ? "SIGTERM" : signal == SIGINT ? "SIGINT" : "SIGHUP";
}

[[noreturn]] void end_by(int signal)
{
    State& s = state();
    s.mutex.lock(); // for good: what waits for it must not go on
    s.stopped = true;
    for (const std::string& folder : s.unfinished)
        remove_whole(folder);
    remove_made(s);
    const std::string line
        = std::string("vexo: stopped by ") + name_of_signal(signal) + "; no unfinished file is left, run it again\n";
    if (::write(s.complaints, line.data(), line.size()) < 0) errno = 0; // nobody listens
    ::signal(signal, SIG_DFL);
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
    ::raise(signal);
    ::_exit(128 + signal);
}

bool is_ignored(int signal)
{
    struct sigaction action = {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
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

void make_with_parents(const fs::path& folder)
{
    if (folder.empty() || fs::is_directory(folder)) return;
    make_with_parents(folder.parent_path());
    if (::mkdir(folder.c_str(), 0777) == 0)
        state().made.push_back(folder.string());
    else if (errno != EEXIST)
        throw Failure(folder.string() + ": the folder cannot be made: " + std::strerror(errno));
}

} // namespace

void watch_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : { SIGTERM, SIGINT, SIGHUP })
        if (!is_ignored(signal)) sigaddset(&signals, signal);
    state().complaints = std::max(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3), -1);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        std::thread([signals] {
            int signal = 0;
            if (sigwait(&signals, &signal) == 0) end_by(signal);
        }).detach();
    } catch (const std::system_error&) { // no thread to be had: the signals end the program as ever
        ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
}

void wait_if_stopped()
{
    while (state().stopped)
        ::pause();
}

TemporaryFolder::TemporaryFolder()
{
    const Uninterrupted alone;
    std::error_code error;
    const fs::path parent = fs::temp_directory_path(error);
    std::string pattern = (parent / "vexo-XXXXXX").string();
    if (error || ::mkdtemp(pattern.data()) == nullptr)
        throw Failure(pattern + ": no temporary folder can be made; set TMPDIR to a folder that can be written");
    _path = pattern;
    state().unfinished.push_back(_path);
}

TemporaryFolder::TemporaryFolder(const std::string& folder)
{
    constexpr int attempts = 3000, pause_us = 10000; // half a minute: another process needs it for a moment only
    for (int attempt = 0; attempt < attempts && _lock < 0; ++attempt) {
        if (attempt > 0) ::usleep(pause_us);
        const Uninterrupted alone;
        try {
            make(folder);
        } catch (...) {
            remove_made(state());
            throw;
        }
        _path = (fs::path(folder) / ".vexo-tmp").string();
        const bool made = ::mkdir(_path.c_str(), 0777) == 0;
        if (!made && errno != EEXIST) break;
        _lock = lock_folder(_path);
        if (_lock < 0) continue;
        state().unfinished.push_back(_path);
        std::error_code ignored;
        for (const auto& left : fs::directory_iterator(_path, ignored))
            fs::remove_all(left.path(), ignored);
    }
    if (_lock >= 0) return;
    const Uninterrupted alone;
    remove_made(state());
    throw Failure(_path + ": cannot be made; is the disk full, the folder read-only, or another vexo at work in it?");
}

TemporaryFolder::~TemporaryFolder()
{
    const Uninterrupted alone;
    State& s = state();
    remove_whole(_path);
    s.unfinished.erase(std::remove(s.unfinished.begin(), s.unfinished.end(), _path), s.unfinished.end());
    if (_lock < 0) return;
    remove_made(s);
    ::close(_lock);
}

void TemporaryFolder::keep()
{
    state().made.clear();
}

void TemporaryFolder::make(const std::string& folder)
{
    make_with_parents(fs::path(folder).lexically_normal());
}

Uninterrupted::Uninterrupted()
{
    state().mutex.lock();
}

Uninterrupted::~Uninterrupted()
{
    state().mutex.unlock();
}

} // namespace vexo::app
