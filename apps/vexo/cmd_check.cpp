#include "base/failure.h"
#include "commands.h"
#include "host/captures/check.h"
#include "host/captures/frames.h"
#include "host/files/output_folder.h"
#include "host/reports/capture_report.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>

namespace vexo::app {

namespace {

struct CheckOptions {
    CheckRequest request;
    std::string out;
};

void run(CheckOptions o, const GlobalOptions& options)
{
    CaptureFiles& files = o.request.files;
    complete_cameras(files.folder, files.cam0, files.cam1);
    std::optional<OutputFolder> out;
    if (!o.out.empty()) out.emplace(o.out);
    for (const std::string& where : { files.cam0, files.cam1 }) {
        const std::vector<std::string> pictures = find_frames(where);
        if (pictures.empty()) throw Failure(where + ": no pictures found");
        if (out) out->stay_out_of(pictures);
    }

    Progress progress(options, 3);
    const Checked checked = check_capture(o.request, progress.on_step());
    progress.step("pictures");
    if (out) {
        add_files(*out, checked);
        out->commit();
    }
    progress.finish();
    say(options, capture_lines(checked));
    if (out) say(options, o.out + ": check.json, gamma_table.json, pictures of exposure, modulation and residual");
    put_json(options, capture_json(checked));
    const std::string verdict = "verdict: " + capture_verdict(checked.findings);
    if (heaviest(checked.findings) == Weight::spoils) throw BelowLimit(verdict);
    say(options, verdict);
}

} // namespace

void add_check(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand("check", "is a capture good enough to be measured?");
    command->add_option("folder", o->request.files.folder, "folder with cam0/ and cam1/");
    command->add_option("--cam0", o->request.files.cam0, "frames of camera 0: a folder, or a pattern in quotes");
    command->add_option("--cam1", o->request.files.cam1, "frames of camera 1");
    command
        ->add_option("--method", o->request.files.method,
            "gray-phase or multi-phase (default: by scene.json or the number of frames)")
        ->check(CLI::IsMember({ "gray-phase", "multi-phase" }));
    command->add_option("--periods", o->request.periods, "multi-phase: the three periods, projector px")
        ->delimiter(',');
    command->add_option(
        "--out", o->out, "folder for check.json, gamma_table.json and pictures (default: nothing is written)");
    finish_command(*command, options,
        "vexo check scan\n  ends with one line: \"verdict: good\", \"verdict: usable, but over-exposed (...)\",\n"
        "  or, as an error with exit code 1,\n  \"verdict: not usable: out-of-order (camera 0: frame04.png and "
        "frame05.png are "
        "exchanged)\"",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
