#include "base/text.h"
#include "commands.h"
#include "host/results/drift.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vexo::app {

namespace {

std::string line_of(const RowsOfResult& r)
{
    std::string name = r.folder;
    name.resize(std::max<std::size_t>(name.size(), 30), ' ');
    if (!r.tested) return name + "  " + r.date + "   not tested: no texture";
    if (r.found == 0) return name + "  " + r.date + "   rows not found in the other camera";
    return name + "  " + r.date + "   rows " + number(r.median, 2) + " px off, scatter " + number(r.scatter, 2)
        + " px, " + percent(r.found, 1.0) + " found";
}

void run(const GlobalOptions& global, const std::vector<std::string>& folders)
{
    const Drift drift = find_drift(folders);
    for (const RowsOfResult& r : drift.results)
        say(global, line_of(r));
    say(global,
        drift.slope ? "trend        " + number(*drift.slope, 3) + " +- " + number(*drift.slope_sigma, 3) + " px a day"
                    : "trend        not known: it needs three results with texture, at different times");
    if (!drift.expected.empty()) say(global, "expected     at this rate the rows are 0.3 px off on " + drift.expected);
    put_json(global, to_json(drift));
    if (!drift.alarm) return;
    const RowsOfResult& first = drift.results[*drift.alarm];
    throw BelowLimit("rows are off since " + first.date + " (" + first.folder + ": " + number(first.median, 2)
        + " px); calibrate again, and fasten the cameras");
}

} // namespace

void add_drift(CLI::App& app, GlobalOptions& global)
{
    auto folders = std::make_shared<std::vector<std::string>>();
    CLI::App* cmd = app.add_subcommand("drift", "the row error of many results over time: does the rig still fit?");
    cmd->add_option("results", *folders, "folders that vexo measure wrote to")->required();
    finish_command(*cmd, global,
        "vexo drift monday/result tuesday/result\n"
        "  prints each result's row error by date (report.json: time), its trend, when it will reach 0.3 px, and,\n"
        "  with exit code 1, since when the rows are off; rows do not show a yaw of a camera",
        [folders, &global] { run(global, *folders); });
}

} // namespace vexo::app
