#include "base/pictures.h"
#include "commands.h"
#include "host/accuracy/compare.h"
#include "host/files/output_folder.h"
#include "host/reports/compare_report.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vexo::app {

namespace {

void run(const GlobalOptions& global, const std::string& result, const std::string& scan)
{
    OutputFolder out(result, { "compare", { "compare.json" }, {}, true, global.force });
    Progress progress(global, compare_steps + 1);
    const Compared compared = compare(result, scan, progress.on_step());
    progress.step("making the picture");
    out.add("compare_view.png", encode(".png", error_view(compared)));
    out.add("compare.json", json_text(compared.figures));
    out.commit();
    progress.finish();
    say(global, comparison_lines(compared.figures));
    say(global, "result: " + out.path() + "/compare.json, compare_view.png");
    put_json(global, compared.figures);
}

} // namespace

void add_compare(CLI::App& app, GlobalOptions& global)
{
    struct Folders {
        std::string result, scan;
    };
    auto o = std::make_shared<Folders>();
    CLI::App* cmd = app.add_subcommand("compare", "error of a measured cloud against the truth of a simulated scan");
    cmd->add_option("result", o->result, "folder that vexo measure wrote")->required();
    cmd->add_option("scan", o->scan, "folder that vexo simulate wrote")->required();
    add_force(*cmd, global);
    finish_command(*cmd, global,
        "vexo compare result scan\n"
        "  prints rms, coverage, bias and outliers; writes result/compare.json and result/compare_view.png",
        [o, &global] { run(global, o->result, o->scan); });
}

} // namespace vexo::app
