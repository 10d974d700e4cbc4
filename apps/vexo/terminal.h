#pragma once

#include "base/on_step.h"
#include "host/files/json_file.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

/// What the program says to people and to other programs.
namespace vexo::app {

/// Options that every command has.
struct GlobalOptions {
    bool json = false;  ///< the result as JSON on the standard output, and nothing else there
    bool quiet = false; ///< no lines for people; errors still go to the standard error stream
    bool force = false; ///< replace files of others that have the names of a command's own
    int threads = 0;    ///< threads of OpenMP and OpenCV; 0: as many as the machine has
};

/// Exit codes, the same of every command.
enum ExitCode { good = 0, below_limit = 1, wrong_usage = 2, bad_input = 3, try_again = 75 };

/// The work is done and its results are written, but they lie below a limit, or a verdict says that they cannot be
/// trusted. The text is one line: what is wrong, and what to do.
class BelowLimit : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One line for people on the standard output; nothing with --json or --quiet. Throws Failure when it was closed.
void say(const GlobalOptions& options, const std::string& line);
void say(const GlobalOptions& options, const std::vector<std::string>& lines);

/// The result for programs, on the standard output, with --json; else nothing. Throws Failure when it was closed.
void put_json(const GlobalOptions& options, const Json& result);

/// One line on the standard error stream, also while it is muted.
void complain(const std::string& line);

/// Sends what libraries print on the standard error stream nowhere from now on: setparams(), the decoders of picture
/// formats and OpenMP write lines of their own there, and a user of this program shall see only its own. complain()
/// and Progress still reach it.
void mute_libraries();

/// How far a command is. On a terminal a bar, once a second has passed; otherwise one line per step of those
/// that begin after that second. Nothing with --json or --quiet.
class Progress {
public:
    /// @param total  number of steps to come
    Progress(const GlobalOptions& options, int total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// The work named `what` begins.
    void step(const std::string& what);
    /// Clears the bar, so that lines can follow.
    void finish();
    /// step(), for the calls of the host library.
    OnStep on_step();

private:
    void _draw(const std::string& what) const;

    bool _silent;
    bool _terminal;
    bool _drawn = false;
    int _total;
    int _done = 0;
    std::chrono::steady_clock::time_point _start;
};

} // namespace vexo::app
