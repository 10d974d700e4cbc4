#pragma once

#include <string>
#include <vector>

/// What SIGTERM, SIGINT and SIGHUP do in the middle of work: one line on the standard error stream, nothing
/// unfinished left in any folder, and then the end that the sender expects, by that signal.
namespace vexo::app {

/// Starts the thread that waits for these signals. To be called before any other thread is made: those inherit
/// that the signals are blocked. A signal that is ignored (nohup) stays ignored.
void watch_signals();

/// Does not return once a signal has come: the program ends from the thread that waits for it.
void wait_if_stopped();

/// A folder for unfinished files. It goes, with all that is in it, when its owner goes or when a signal ends the
/// program.
class TemporaryFolder {
public:
    /// One of its own, under the system's folder for such. Throws Failure.
    TemporaryFolder();
    /// `.vexo-tmp` in `folder`, which is made with its parents when it is missing; those go, too, unless keep() is
    /// called. Waits for another process that uses it, and takes over what a killed one left. Throws Failure.
    explicit TemporaryFolder(const std::string& folder);
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    /// The folders that were made for it stay.
    void keep();
    /// A folder that has to be made in `folder`, with its parents; it goes with this one unless keep() is called.
    void make(const std::string& folder);
    std::string operator/(const std::string& name) const { return _path + "/" + name; }

private:
    std::string _path;
    int _lock = -1;
};

/// While it lives no signal ends the program: for steps that must be done together, and quickly.
class Uninterrupted {
public:
    Uninterrupted();
    ~Uninterrupted();
    Uninterrupted(const Uninterrupted&) = delete;
    Uninterrupted& operator=(const Uninterrupted&) = delete;
};

} // namespace vexo::app
