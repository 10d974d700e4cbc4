#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <unistd.h>

/// How a program under tests/hard is run, and its line in the table.
namespace hard {

/// --seconds N    as many trials as fit; without it a fixed number, the quick form
/// --trials N     that many trials
/// --seed S       of the pseudo-random choices; trial i depends on S and i alone
/// --only I       trial I alone, in this process and unprotected: for a debugger
struct Options {
    double seconds = 0;
    long trials = 0;
    uint64_t seed = 1;
    long only = -1;

    Options(int argc, char** argv)
    {
        for (int i = 1; i + 1 < argc; i += 2) {
            const std::string key = argv[i];
            if (key == "--seconds") seconds = std::atof(argv[i + 1]);
            if (key == "--trials") trials = std::atol(argv[i + 1]);
            if (key == "--seed") seed = std::strtoull(argv[i + 1], nullptr, 10);
            if (key == "--only") only = std::atol(argv[i + 1]);
        }
    }
};

/// Seconds since it was made.
class Clock {
public:
    double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count(); }

private:
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

/// One line of the table.
inline void report(const char* what, long tried, long found, const Clock& clock)
{
    std::printf("%-58s %9ld tried %6ld found %8.1f s\n", what, tried, found, clock.seconds());
    std::fflush(stdout);
}

/// Entries of a directory; of /proc/self/task: threads, and two.
inline long entries(const char* directory)
{
    long count = 0;
    DIR* d = opendir(directory);
    while (d != nullptr && readdir(d) != nullptr)
        ++count;
    if (d != nullptr) closedir(d);
    return count;
}

inline long resident_kb()
{
    long pages = 0, resident = 0;
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr || std::fscanf(f, "%ld %ld", &pages, &resident) != 2) std::abort();
    std::fclose(f);
    return resident * 4;
}

/// A folder that goes with its owner; only the process that made it removes it.
class Folder {
public:
    Folder()
    {
        char name[] = "/tmp/vexo_hard_XXXXXX";
        if (mkdtemp(name) == nullptr) std::abort();
        _path = name;
    }
    ~Folder()
    {
        if (getpid() != _owner) return;
        if (std::system(("rm -rf '" + _path + "'").c_str()) != 0) std::perror("rm");
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string operator/(const std::string& file) const { return _path + "/" + file; }

private:
    std::string _path;
    pid_t _owner = getpid();
};

/// The library writes a line per setparams() and one per missing table: not now.
inline void silence_stderr()
{
    if (std::freopen("/dev/null", "w", stderr) == nullptr) std::abort();
}

} // namespace hard
