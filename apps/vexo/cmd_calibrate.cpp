#include "base/failure.h"
#include "commands.h"
#include "host/calibration/calibrate.h"
#include "host/calibration/checks.h"
#include "host/cameras/calibration_notes.h"
#include "host/files/output_folder.h"
#include "host/reports/calibration_files.h"
#include "host/reports/calibration_json.h"
#include "host/reports/calibration_text.h"
#include "options.h"
#include "photo_folders.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct CalibrateOptions {
    PhotoFolders photos;
    std::string board, out;
    CalibrateRequest request;
};

void complete(CalibrateOptions& o)
{
    complete(o.photos);
    for (const double ruler : { o.request.ruler_x, o.request.ruler_y })
        if (ruler != 0 && !(ruler >= 80.0 && ruler <= 120.0))
            throw UsageFailure("--ruler-x, --ruler-y: the measured length of a 100 mm ruler in mm, such as 99.6");
}

void say_result(const GlobalOptions& options, const Calibrated& c, const std::vector<Finding>& findings)
{
    const bool hmat = std::any_of(c.files.begin(), c.files.end(), [](const auto& f) { return f.first == "hmat0.bin"; });
    if (c.is_pair() && !hmat)
        say(options, "no hmat set: it cannot express a rectified size that differs from the pictures'");
    say(options, view_lines(c));
    say(options, refinement_line(c.refinement));
    say(options, finding_lines(findings));
}

std::string written(const std::string& out, const Calibrated& c)
{
    return out + ": cameras.yaml" + (c.is_pair() ? ", stereo.yaml, map*.bin, hmat*.bin, boardRT.yaml" : "")
        + ", board.yaml, drawings/, report.json; look at report.html";
}

/// What the folder's present calibration was found to be; empty when there is none.
std::string present_verdict(const std::string& folder)
{
    const std::string file = (fs::path(folder) / "cameras.yaml").string();
    std::error_code ignored;
    if (!fs::exists(file, ignored)) return "";
    const std::string verdict = read_notes({ file }).verdict;
    return verdict.empty() ? "present" : verdict;
}

/// The gravest thing that was found, and what to do.
std::string why_bad(const std::vector<Finding>& findings)
{
    for (const Finding& finding : findings)
        if (finding.weight == Weight::spoils) return question_of(finding) + " " + sentence(finding);
    return "";
}

void run(CalibrateOptions o, const GlobalOptions& options)
{
    complete(o);
    OutputFolder out(o.out, { "calibrate", { "cameras.yaml", "report.json" }, {}, false, options.force });
    const std::string present = present_verdict(o.out);
    const BoardFile printed = load_board(o.board);
    const BoardFile board = corrected_board(printed, o.request);
    BoardViews views = find_views(o.photos.cam0, o.photos.cam1, o.request.dropped);
    const int pictures = static_cast<int>(views.cameras.size() * views.count());
    Progress progress(options, pictures + calibrate_steps);
    recognise(views, board, progress.on_step());
    if (!views.any_good()) {
        progress.finish();
        say(options, view_lines(views, board));
    }
    const Calibrated c = calibrate(views, board, printed.layout.pitch_mm, o.request, progress.on_step());
    const std::vector<Finding> findings = check_calibration(c);
    const Json json = calibration_json(c, findings);
    const bool bad = calibration_verdict(findings) == bad_calibration;
    const bool replace = !bad || options.force || present.empty() || present == bad_calibration;
    std::vector<std::string> kept;
    if (replace) {
        add_files(out, c, findings);
        kept = out.commit();
    }
    progress.finish();
    say_kept(options, kept);
    say_result(options, c, findings);
    if (replace) say(options, written(o.out, c));
    put_json(options, json);
    if (bad)
        throw BelowLimit("calibration: " + std::string(bad_calibration) + ": " + why_bad(findings)
            + (replace ? "" : "; the " + present + " calibration in " + o.out + " stays, --force replaces it"));
    say(options, "calibration: " + calibration_verdict(findings));
}

} // namespace

void add_calibrate(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<CalibrateOptions>();
    CLI::App* command
        = app.add_subcommand("calibrate", "photos of the board -> calibrated camera or pair, and how good it is");
    add_photos(*command, o->photos);
    command->add_option("--board", o->board, "board.yaml of vexo board")->required();
    command->add_option("--out", o->out, "folder for the calibration files and the report")->required();
    command->add_option("--ruler-x", o->request.ruler_x, "length of the printed 100 mm ruler x as measured, mm");
    command->add_option("--ruler-y", o->request.ruler_y, "the same of ruler y");
    command->add_option("--drop-view", o->request.dropped, "numbers of views to leave out")->delimiter(',');
    command->add_option("--focal", o->request.focal, "focal length to start from, px (default: none)")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--flags", o->request.flags, "CALIB_* flags of OpenCV, as a number")->capture_default_str();
    command
        ->add_option("--alpha", o->request.rectify.alpha, "rectified images: 0 only valid pixels, 1 all, -1 in between")
        ->check(CLI::Range(-1.0, 1.0))
        ->capture_default_str();
    command->add_flag("!--no-refine", o->request.refine,
        "calibrate from the markers as the library recognises them, not from their grey values");
    command->add_flag("!--no-hold-out", o->request.hold_out, "skip the hold-out check, which calibrates twice more");
    add_force(*command, options);
    finish_command(*command, options,
        "vexo calibrate photos --board board.yaml --ruler-x 99.6 --ruler-y 99.8 --out calib\n  says for every picture "
        "what was "
        "recognised and writes calib/cameras.yaml for vexo measure --calib, and calib/report.html",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
