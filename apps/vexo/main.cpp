#include "common.h"

#include "vexo/version.h"

#include <CLI/CLI.hpp>
#include <opencv2/core/utils/logger.hpp>

#include <csignal>
#include <iostream>

namespace {

/// One line, whatever an exception's text looks like.
int report(std::string what)
{
    for (char& c : what)
        if (c == '\n' || c == '\r') c = ' ';
    while (!what.empty() && what.back() == ' ')
        what.pop_back();
    std::cerr << "vexo: " << what << std::endl;
    return 1;
}

/// Options that cannot be understood; help and version are no errors.
int report_options(const CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() == 0) return app.exit(error);
    std::string command = "vexo";
    for (const CLI::App* sub : app.get_subcommands())
        command += " " + sub->get_name();
    report(std::string(error.what()) + "; see " + command + " --help");
    return 2;
}

int run(int argc, char** argv)
{
    CLI::App app("vexo: structured-light 3D, from camera frames to metric point clouds", "vexo");
    app.set_version_flag("--version", VEXO_VERSION_STRING);
    app.require_subcommand(1);
    app.footer("Example:\n  vexo simulate bust --out scan && vexo measure scan --out result && "
               "vexo compare result scan\n\nvexo COMMAND --help tells the options of a command.");
    vexo::app::GlobalOptions options;
    vexo::app::add_simulate(app, options);
    vexo::app::add_measure(app, options);
    vexo::app::add_compare(app, options);
    vexo::app::add_table(app, options);
    vexo::app::add_info(app, options);
    vexo::app::add_board(app, options);
    vexo::app::add_patterns(app, options);
    vexo::app::add_check(app, options);
    vexo::app::add_calibrate(app, options);
    vexo::app::add_pose(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return report_options(app, error);
    }
    std::cout.flush();
    return std::cout ? 0 : report("the standard output was closed");
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);                                         // a closed pipe shows up as a failed write
    cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT); // OpenCV's news are not the user's
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return report("not enough memory");
    } catch (const std::exception& error) {
        return report(error.what());
    }
}
