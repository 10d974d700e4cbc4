#include "measure_options.h"

#include "base/failure.h"
#include "base/stopwatch.h"
#include "commands.h"
#include "host/captures/exposures.h"
#include "host/captures/frame_files.h"
#include "host/files/output_folder.h"
#include "host/measurement/measure.h"
#include "host/reports/measurement_pictures.h"
#include "host/reports/measurement_text.h"
#include "host/results/report.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vexo::app {

namespace {

/// The calibration; the capture's manifest says its unit where neither option nor files do.
Stereo open_calibration(const MeasureOptions& o, const Capture& capture)
{
    Stereo stereo = open_typed(o.calib, o.camera);
    if (!stereo.notes.unit.stated && capture.manifest && !capture.manifest->unit.empty())
        stereo.notes.unit = unit_named(capture.manifest->unit, "capture.json: unit");
    return stereo;
}

std::string what_was_written(const MeasureOptions& o)
{
    if (!o.pictures) return "cloud.ply, depth.tiff, texture.png, report.json";
    return "cloud.ply, report.json, texture, disparity, depth and validity, each with a picture *_view.png, cause.png";
}

void run(const GlobalOptions& global, MeasureOptions o)
{
    complete(o);
    const Choice choice = choose_method(o.files);
    reject_foreign(o, choice.method);
    record_of(
        o.request, choice.method, o.files.decoded, periods_said_in(o.files.folder)); // refuses what nothing can be
    OutputFolder out(o.out, { "measure", { "report.json" }, { "compare", "convert" }, false, global.force });
    for (const CaptureFiles& files : o.sets.empty() ? std::vector<CaptureFiles> { o.files } : o.sets)
        out.stay_out_of(all_pictures(files));

    constexpr int other_steps = 3;
    Progress progress(global, measure_steps + other_steps + (o.request.smooth ? 1 : 0));
    progress.step("reading the frames");
    Stopwatch clock;
    const Capture capture = o.sets.empty() ? read_capture(o.files, choice) : read_exposures(o.sets, choice);
    o.camera.inp_width = capture.frames.size.width;
    o.camera.inp_height = capture.frames.size.height;
    const Stereo stereo = open_calibration(o, capture);
    const double read_seconds = clock.lap();
    const Measured measured = measure(capture, stereo, o.request, progress.on_step());

    progress.step(o.pictures ? "making the pictures" : "making the files");
    Json report = make_report(capture, stereo, o.request, measured, read_seconds);
    add_files(out, capture, measured, report, o.pictures ? ResultFiles::all : ResultFiles::no_pictures);
    progress.step("writing " + o.out);
    const std::vector<std::string> kept = out.commit();
    progress.finish();
    say_kept(global, kept);
    say(global, summary_lines(measured, report));
    say(global, "result       " + o.out + ": " + what_was_written(o));
    if (o.pictures) say(global, "look at      " + o.out + "/report.html");
    put_json(global, report);
    if (measured.cloud.count == 0) throw BelowLimit(why_nothing(measured));
    const std::string spoilt = why_spoilt(measured);
    if (!spoilt.empty() && !o.accept_verdict) throw BelowLimit(spoilt);
}

} // namespace

void add_measure(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<MeasureOptions>();
    CLI::App* cmd = app.add_subcommand("measure", "frames of both cameras -> point cloud, depth and disparity maps");
    declare(*cmd, *o);
    add_force(*cmd, global);
    finish_command(*cmd, global,
        "vexo measure scan --out result --depth 500:700\n"
        "  reads scan/cam0, scan/cam1, scan/cameras.yaml; writes result/cloud.ply and the pictures beside it\n"
        "  vexo measure --exposures dim bright --out result\n"
        "  merges captures of one scene at several exposures: bright and dark surfaces in one cloud\n"
        "  exit code 1: written, but a warning spoils it (\"verdict\": \"spoils\"), or nothing was measured\n"
        "  no check sees a camera that turned about the vertical axis (yaw), or a wrong baseline:\n"
        "  measure a body of known size from time to time",
        [o, &global] { run(global, *o); });
}

} // namespace vexo::app
