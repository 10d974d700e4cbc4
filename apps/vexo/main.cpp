#include "base/large_pages.h"
#include "commands.h"
#include "options.h"
#include "signals.h"
#include "terminal.h"
#include "vexo/version.h"

#include <CLI/CLI.hpp>
#include <opencv2/core/utils/logger.hpp>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <limits>

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

namespace {

/// One line, whatever an exception's text looks like.
int report(std::string what, vexo::app::ExitCode code)
{
    vexo::app::wait_if_stopped(); // the signal has its own line
    for (char& c : what)
        if (c == '\n' || c == '\r') c = ' ';
    while (!what.empty() && what.back() == ' ')
        what.pop_back();
    vexo::app::complain("vexo: " + what);
    return code;
}

/// Options that cannot be understood; help and version are no errors.
int report_options(const CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string command = "vexo";
    for (const CLI::App* sub : app.get_subcommands())
        command += " " + sub->get_name();
    return report(std::string(error.what()) + "; see " + command + " --help", vexo::app::wrong_usage);
}

int run(int argc, char** argv)
{
    CLI::App app("vexo: structured-light 3D, from camera frames to metric point clouds", "vexo");
    app.set_version_flag("--version", VEXO_VERSION_STRING);
    app.require_subcommand(1);
    vexo::app::use_narrow_help(app); // and of all commands, which inherit it
    app.footer("Example:\n  vexo simulate bust --out scan && vexo measure scan --out result && "
               "vexo compare result scan\n\nvexo COMMAND --help lists the options of a command.");
    vexo::app::GlobalOptions options;
    vexo::app::add_simulate(app, options);
    vexo::app::add_measure(app, options);
    vexo::app::add_compare(app, options);
    vexo::app::add_convert(app, options);
    vexo::app::add_merge(app, options);
    vexo::app::add_table(app, options);
    vexo::app::add_drift(app, options);
    vexo::app::add_info(app, options);
    vexo::app::add_board(app, options);
    vexo::app::add_patterns(app, options);
    vexo::app::add_check(app, options);
    vexo::app::add_calibrate(app, options);
    vexo::app::add_verify(app, options);
    vexo::app::add_pose(app, options);
    vexo::app::add_handeye(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return report_options(app, error);
    }
    std::cout.flush();
    vexo::app::wait_if_stopped();
    return std::cout ? vexo::app::good : report("the standard output was closed", vexo::app::try_again);
}

/// A stream that the caller closed must not become the number of a file: what is written to it fails instead.
void fill_closed_streams()
{
    for (int fd = ::open("/dev/null", O_RDONLY); fd >= 0; fd = ::open("/dev/null", O_RDONLY)) {
        if (fd <= STDERR_FILENO) continue;
        ::close(fd);
        return;
    }
}

/// All memory from one heap on 2 MiB pages, kept: buffers of a few MB come and go all the time, and where a fresh page
/// costs much, as in a virtual machine, 60 000 small ones were half of a measurement. The heap is made to grow once by
/// as much as a measurement may need, of which nothing is taken before it is used; asked for large pages, and left.
/// Where that much address space is not granted everything works the same.
void keep_memory()
{
    constexpr int never_trim = std::numeric_limits<int>::max(), one_heap = 1;
    constexpr std::size_t most = std::size_t { 2040 } << 20, least = std::size_t { 60 } << 20; // free() trims 2 GiB
    ::mallopt(M_MMAP_MAX, 0);
    ::mallopt(M_TRIM_THRESHOLD, never_trim);
    ::mallopt(M_ARENA_MAX, one_heap);
    for (std::size_t bytes = most; bytes >= least; bytes /= 2) {
        void* const heap = std::malloc(bytes);
        if (heap == nullptr) continue;
        vexo::ask_for_large_pages(heap, bytes);
        std::free(heap);
        return;
    }
}

} // namespace

int main(int argc, char** argv)
{
    fill_closed_streams();
    keep_memory();
    std::signal(SIGPIPE, SIG_IGN); // a closed pipe shows up as a failed write
    vexo::app::watch_signals();
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT); // OpenCV's news are not the user's
    using namespace vexo::app;
    try {
        return run(argc, argv);
    } catch (const BelowLimit& error) {
        return report(error.what(), below_limit);
    } catch (const vexo::UsageFailure& error) {
        return report(error.what(), wrong_usage);
    } catch (const vexo::TemporaryFailure& error) {
        return report(error.what(), try_again);
    } catch (const std::bad_alloc&) {
        return report("not enough memory", try_again);
    } catch (const std::filesystem::filesystem_error& error) {
        const ExitCode code = vexo::is_temporary(error.code().value()) ? try_again : bad_input;
        return report(error.path1().string() + ": " + error.code().message(), code);
    } catch (const std::exception& error) {
        return report(error.what(), bad_input);
    }
}
