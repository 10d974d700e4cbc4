#pragma once

#include "run.h"

#include <functional>
#include <new>

#include <csignal>
#include <ctime>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

/// Trials in child processes, so that a crash, a hang or a flood of memory is one line in the table.
///
/// A parent that has used OpenMP cannot be forked safely: it must leave all work with the library to its children.
namespace hard {

/// What one trial found: null for nothing, else a text that lives for ever.
using Trial = std::function<const char*(long)>;

struct Limits {
    double seconds = 10;                         ///< of processor time of one trial: machines may be slow or busy
    std::size_t bytes = std::size_t { 3 } << 30; ///< of address space, above what the program begins with
};

/// What the children tell their parent.
struct Progress {
    volatile long trial;
    volatile const char* fault;
};

#ifdef VEXO_COVERAGE
extern "C" void __gcov_dump();
#endif

/// Ends a child at once; only the counters of a coverage build are written.
[[noreturn]] inline void leave(int code)
{
#ifdef VEXO_COVERAGE
    __gcov_dump();
#endif
    _exit(code);
}

inline std::size_t address_space()
{
    long pages = 0;
    std::FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr || std::fscanf(f, "%ld", &pages) != 1) std::abort();
    std::fclose(f);
    return static_cast<std::size_t>(pages) * 4096;
}

inline const char* guarded(const Trial& trial, long i)
{
    try {
        return trial(i);
    } catch (const std::exception& e) {
        static std::string text;
        text = std::string("exception: ") + e.what();
        return text.c_str();
    }
}

inline void print_fault(const char* program, const Options& options, long i, const std::string& fault)
{
    std::printf("  FOUND %s    repeat: %s --seed %llu --only %ld\n", fault.c_str(), program,
        static_cast<unsigned long long>(options.seed), i);
    std::fflush(stdout);
}

/// Child that runs trials from `first` until one finds something; never returns.
[[noreturn]] inline void run_child(
    long first, long last, const Limits& limits, Progress* progress, const Trial& trial, char* fault)
{
#ifndef __SANITIZE_ADDRESS__
    const rlimit memory = { address_space() + limits.bytes, RLIM_INFINITY };
    setrlimit(RLIMIT_AS, &memory);
#endif
    const rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
    silence_stderr();
    for (long i = first; i < last; ++i) {
        progress->trial = i;
        const char* found = guarded(trial, i);
        if (found == nullptr) continue;
        std::strncpy(fault, found, 200);
        leave(2);
    }
    progress->trial = last;
    leave(0);
}

inline double processor_seconds(pid_t child)
{
    clockid_t clock = 0;
    timespec time = {};
    if (clock_getcpuclockid(child, &clock) == 0) clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// Waits for a child; one that works at a trial for too long, or waits at it for ten minutes, is killed.
/// @return what it found, empty: nothing
inline std::string wait_for(pid_t child, const Limits& limits, const Progress* progress, const char* fault)
{
    long at = progress->trial;
    const Clock since;
    double begun = 0, worked = 0;
    bool hangs = false;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (progress->trial != at) {
            at = progress->trial;
            begun = since.seconds();
            worked = processor_seconds(child);
        }
        if (!hangs && (processor_seconds(child) - worked > limits.seconds || since.seconds() - begun > 600)) {
            hangs = true;
            kill(child, SIGKILL);
        }
        usleep(500);
    }
    if (hangs) return "hang";
    if (WIFSIGNALED(status)) return std::string("killed by ") + strsignal(WTERMSIG(status));
    if (WEXITSTATUS(status) == 2) return fault;
    return WEXITSTATUS(status) == 0 ? "" : "exit code " + std::to_string(WEXITSTATUS(status));
}

/// Runs trials and prints their line. @return how many found something
inline long run_trials(const char* what, const char* program, const Options& options, long quick, const Trial& trial,
    Limits limits = {}, bool fixed = false)
{
    if (options.only >= 0) {
        if (fixed && options.only >= quick) return 0; // a trial of another table line
        const char* found = trial(options.only);
        std::printf("trial %ld: %s\n", options.only, found == nullptr ? "nothing found" : found);
        return found != nullptr;
    }
    constexpr long batch = 200; // trials in one child: a fork costs a start of the thread pools
    void* shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* progress = new (shared) Progress();
    char* fault = static_cast<char*>(shared) + sizeof(Progress);
    const bool timed = options.seconds > 0 && !fixed;
    const long end = fixed || options.trials == 0 ? quick : options.trials;
    const Clock clock;
    long found = 0, next = 0;
    while (timed ? clock.seconds() < options.seconds : next < end) {
        const long last = timed ? next + batch : std::min(next + batch, end);
        progress->trial = next;
        const pid_t child = fork();
        if (child == 0) run_child(next, last, limits, progress, trial, fault);
        const std::string text = wait_for(child, limits, progress, fault);
        next = text.empty() ? last : progress->trial + 1;
        if (text.empty()) continue;
        ++found;
        print_fault(program, options, progress->trial, text);
    }
    munmap(shared, 4096);
    report(what, next, found, clock);
    return found;
}

/// Runs `work` in a child of its own. @return its exit code, or 128 + the signal that ended it
inline int in_child(const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child == 0) leave(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace hard
