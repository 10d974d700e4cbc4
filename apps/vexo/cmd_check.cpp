#include "base/failure.h"
#include "calibration_options.h"
#include "commands.h"
#include "host/captures/check.h"
#include "host/captures/frame_files.h"
#include "host/files/output_folder.h"
#include "host/measurement/measure.h"
#include "host/reports/capture_report.h"
#include "host/reports/measurement_text.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>

namespace vexo::app {

namespace {

struct CheckOptions {
    CheckRequest request;
    FrameOptions frames;
    std::string out;
    TypedCalibration calib; ///< to test the rows with; may be absent
};

/// Whether the frames fit the calibration: measured with it as `vexo measure` does. Frames that are not whole have
/// findings of their own.
void add_rows(const CheckOptions& o, Checked& checked)
{
    if (!o.calib.given() || !checked.cameras[0].figures || !checked.cameras[1].figures) return;
    const Capture capture = read_capture(o.request.files, choose_method(o.request.files));
    StereoCameraParam param;
    param.inp_width = capture.frames.size.width;
    param.inp_height = capture.frames.size.height;
    MeasureRequest request;
    request.periods = checked.method.periods;
    const Measured measured = measure(capture, open_typed(o.calib, param), request);
    if (measured.cloud.count == 0)
        checked.findings.push_back({ "rows", Weight::spoils, "", why_nothing(measured), "" });
    for (const Finding& finding : measured.findings)
        if (finding.where.empty() && measured.cloud.count > 0) checked.findings.push_back(finding); // of both cameras
}

void run(CheckOptions o, const GlobalOptions& options)
{
    CaptureFiles& files = o.request.files;
    complete_cameras(files.folder, files.cam0, files.cam1);
    complete_frames_of(o.frames, files);
    std::optional<OutputFolder> out;
    if (!o.out.empty()) out.emplace(o.out, Owner { "check", { "check.json" }, {}, false, options.force });
    if (out) out->stay_out_of(all_pictures(files));

    Progress progress(options, 3);
    Checked checked = check_capture(o.request, progress.on_step());
    progress.step("rows and pictures");
    add_rows(o, checked);
    std::vector<std::string> kept;
    if (out) {
        add_files(*out, checked);
        kept = out->commit();
    }
    progress.finish();
    say_kept(options, kept);
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
    add_frame_options(*command, o->frames);
    command->add_option("--periods", o->request.periods, "multi-phase: the three periods, projector px")
        ->delimiter(',')
        ->expected(3)
        ->allow_extra_args(false);
    add_calibration(*command, o->calib, "to test, too, whether both cameras see the surface in the same rows");
    command->add_option(
        "--out", o->out, "folder for check.json, gamma_table.json and pictures (default: nothing is written)");
    add_force(*command, options);
    finish_command(*command, options,
        "vexo check scan\n  ends with one line: \"verdict: good\", \"verdict: usable, but over-exposed (...)\",\n"
        "  or, as an error with exit code 1,\n  \"verdict: not usable: out-of-order (camera 0: frame04.png and "
        "frame05.png are exchanged)\"",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
