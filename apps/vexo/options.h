#pragma once

#include "host/captures/choose_method.h"
#include "terminal.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

/// Options of commands, and their texts made into numbers.
namespace vexo::app {

/// Lets the help of `app`, and of the commands that are added from now on, fit 100 columns.
void use_narrow_help(CLI::App& app);

/// Gives `command` the options --json, --quiet and --threads, and `run` as its work.
/// @param example  command line to paste, and what it does; ends the command's --help
void finish_command(CLI::App& command, GlobalOptions& options, const std::string& example, std::function<void()> run);

/// Gives a command that writes files the option --force.
void add_force(CLI::App& command, GlobalOptions& options);

/// One line for each file that commit() left alone.
void say_kept(const GlobalOptions& options, const std::vector<std::string>& names);

/// "A:B" as two finite numbers that ascend; throws Failure naming `option` otherwise.
std::pair<double, double> parse_range(const std::string& text, const std::string& option);

/// The same of depths, which are positive.
std::pair<double, double> parse_depths(const std::string& text, const std::string& option);

/// Two finite numbers with a letter or comma between them, as "297x210"; throws Failure naming `option` otherwise.
std::pair<double, double> parse_pair(const std::string& text, char between, const std::string& option);

/// So many finite numbers with that character between them; throws Failure naming `option` and its `form` otherwise.
std::vector<double> parse_numbers(
    const std::string& text, char between, std::size_t count, const std::string& option, const std::string& form);

/// Which recorded frames are which, and how many bits they have, of commands that read captures.
struct FrameOptions {
    std::string order; ///< as typed
    std::optional<int> bits;
};

/// Gives a command --order and --bits.
void add_frame_options(CLI::App& command, FrameOptions& options);

/// Puts what was typed into `files`. Throws UsageFailure.
void complete_frames_of(const FrameOptions& options, CaptureFiles& files);

/// Throws Failure with `why` for the first of the options that was given.
void reject(const std::vector<CLI::Option*>& options, const std::string& why);

/// Folder, and what is in it unless options name another place: completes cam0 and cam1. Throws Failure when
/// nothing says where they are.
void complete_cameras(const std::string& folder, std::string& cam0, std::string& cam1);

} // namespace vexo::app
