#pragma once

#include "terminal.h"

namespace CLI {
class App;
}

/// One function for each file cmd_*.cpp: it declares a command's options and what the command does.
namespace vexo::app {

void add_simulate(CLI::App& app, GlobalOptions& options);
void add_measure(CLI::App& app, GlobalOptions& options);
void add_compare(CLI::App& app, GlobalOptions& options);
void add_convert(CLI::App& app, GlobalOptions& options);
void add_merge(CLI::App& app, GlobalOptions& options);
void add_table(CLI::App& app, GlobalOptions& options);
void add_drift(CLI::App& app, GlobalOptions& options);
void add_info(CLI::App& app, GlobalOptions& options);
void add_board(CLI::App& app, GlobalOptions& options);
void add_patterns(CLI::App& app, GlobalOptions& options);
void add_check(CLI::App& app, GlobalOptions& options);
void add_calibrate(CLI::App& app, GlobalOptions& options);
void add_verify(CLI::App& app, GlobalOptions& options);
void add_pose(CLI::App& app, GlobalOptions& options);
void add_handeye(CLI::App& app, GlobalOptions& options);

} // namespace vexo::app
