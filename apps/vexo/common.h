#pragma once

#include "base/failure.h"

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

/// The host program `vexo`: one file per command. Uses the public interface of the library, and sim/.
namespace vexo::app {

class TemporaryFolder;

/// Options that every command has.
struct GlobalOptions {
    bool json = false;  ///< the result as JSON on the standard output, and nothing else there
    bool quiet = false; ///< no lines for people; errors still go to the standard error stream
    int threads = 0;    ///< threads of OpenMP and OpenCV; 0: as many as the machine has
};

/// Gives `command` the options --json, --quiet and --threads, and `run` as its work.
/// @param example  command line to paste, and what it does; ends the command's --help
void finish_command(CLI::App& command, GlobalOptions& options, const std::string& example, std::function<void()> run);

/// One line for people on the standard output; nothing with --json or --quiet.
void say(const GlobalOptions& options, const std::string& line);

/// Indented, ended by a new line. File names need not be UTF-8, JSON must: a byte that is not becomes U+FFFD.
std::string json_text(const nlohmann::ordered_json& json);

/// The result for programs, on the standard output, with --json; else nothing.
void put_json(const GlobalOptions& options, const nlohmann::ordered_json& result);

/// How far a command is. On a terminal a bar, once a second has passed; otherwise one line per step of those
/// that begin after that second. Nothing with --json or --quiet.
class Progress {
public:
    /// @param total  number of step() calls to come
    Progress(const GlobalOptions& options, int total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// The work named `what` begins.
    void step(const std::string& what);
    /// Clears the bar, so that lines can follow.
    void finish();

private:
    void _draw(const std::string& what) const;

    bool _silent;
    bool _terminal;
    bool _drawn = false;
    int _total;
    int _done = 0;
    std::chrono::steady_clock::time_point _start;
};

/// A number with `decimals` digits after a point, whatever the locale; "nan" and "inf" in words.
std::string number(double value, int decimals);
/// A share as per cent with two decimals: "99.51 %"; "-" of nothing.
std::string percent(double part, double whole);
/// An integer with thin groups: "1 310 720".
std::string grouped(long long value);
/// "NEAR:FAR" as two finite numbers; throws Failure naming `option` otherwise.
std::pair<double, double> parse_range(const std::string& text, const std::string& option);

/// Throws Failure when `folder` is not a folder that can be written, and could not be made.
void check_output_folder(const std::string& folder);

/// Calls `work` with 0 to count - 1, on as many threads as there are to be. When some fail, the exception of the
/// first of them goes on to the caller.
void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work);

/// Files that are written together or not at all: they are kept in memory until commit(). Whatever goes wrong there,
/// and when a signal ends the program, the folder stays as it was.
class OutputFolder {
public:
    /// Checks the folder at once, so that a mistyped path does not cost the whole computation.
    explicit OutputFolder(std::string folder);

    /// Throws Failure when one of these pictures stands in the folder: the next run would take results for frames.
    void stay_out_of(const std::vector<std::string>& pictures) const;
    void add(const std::string& name, std::vector<unsigned char> bytes);
    void add(const std::string& name, const std::string& text);
    /// commit() removes the file of that name, if there is one and it was not added: the rest of an earlier series.
    void drop(const std::string& name);
    /// Makes the folder, writes all files beside their places, and then gives them their names. Throws Failure.
    void commit();
    const std::string& path() const { return _folder; }

private:
    std::string _place(const std::string& name) const;
    void _write(const TemporaryFolder& unfinished) const;
    void _give_names(TemporaryFolder& unfinished) const;

    std::string _folder;
    std::vector<std::pair<std::string, std::vector<unsigned char>>> _files;
    std::vector<std::string> _dropped;
};

// One per file cmd_*.cpp: declares the command's options and what it runs.
void add_simulate(CLI::App& app, GlobalOptions& options);
void add_measure(CLI::App& app, GlobalOptions& options);
void add_compare(CLI::App& app, GlobalOptions& options);
void add_table(CLI::App& app, GlobalOptions& options);
void add_info(CLI::App& app, GlobalOptions& options);
void add_board(CLI::App& app, GlobalOptions& options);
void add_patterns(CLI::App& app, GlobalOptions& options);
void add_check(CLI::App& app, GlobalOptions& options);
void add_calibrate(CLI::App& app, GlobalOptions& options);
void add_pose(CLI::App& app, GlobalOptions& options);

} // namespace vexo::app
