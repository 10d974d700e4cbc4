#include "base/failure.h"
#include "base/pictures.h"
#include "commands.h"
#include "host/calibration/verify.h"
#include "host/cameras/calibration_files.h"
#include "host/cameras/calibration_notes.h"
#include "host/reports/verify_report.h"
#include "options.h"
#include "photo_folders.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct VerifyOptions {
    PhotoFolders photos;
    std::vector<std::string> calib;
    std::string board;
};

/// The board that was calibrated with stands beside its calibration.
std::string board_file(const VerifyOptions& o)
{
    if (!o.board.empty()) return o.board;
    const fs::path calib(o.calib.front());
    std::error_code ignored;
    std::string beside = ((fs::is_directory(calib, ignored) ? calib : calib.parent_path()) / "board.yaml").string();
    if (fs::exists(beside, ignored)) return beside;
    throw Failure(beside + ": there is no such file; give the board with --board");
}

std::vector<CalibratedCamera> cameras_of(const VerifyOptions& o, const BoardViews& views)
{
    const CalibrationFiles calibration = find_calibration(o.calib);
    if (!views.pair()) return { read_camera(calibration.files.front(), "cam0") };
    const cv::Size frames = read_grey(views.cameras[0][0].path).size(); // where the files do not say it
    auto pair = read_cameras(calibration, frames);
    for (CalibratedCamera& camera : pair)
        camera.T *= read_notes(calibration.files).unit.in_mm; // boards are in mm
    return { pair.begin(), pair.end() };
}

void run(VerifyOptions o, const GlobalOptions& options)
{
    complete(o.photos);
    const BoardFile board = load_board(board_file(o));
    BoardViews views = find_views(o.photos.cam0, o.photos.cam1, {});
    const std::vector<CalibratedCamera> cameras = cameras_of(o, views);
    Progress progress(options, static_cast<int>(views.cameras.size() * views.count()));
    const Verified verified = verify_calibration(cameras, std::move(views), board, progress.on_step());
    progress.finish();
    say(options, verified_lines(verified, board));
    put_json(options, verified_json(verified, board));
    for (const Finding& finding : verified.findings)
        if (finding.weight == Weight::spoils) throw BelowLimit("no longer right: " + sentence(finding));
    say(options,
        heaviest(verified.findings) == Weight::good ? "the calibration is still right"
                                                    : "the calibration is usable, but not as good as it could be");
}

} // namespace

void add_verify(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand("verify", "new photos of the board: is the calibration still right?");
    add_photos(*command, o->photos);
    command->add_option("--calib", o->calib, "folder that vexo calibrate wrote, or camera files as for vexo measure")
        ->required()
        ->expected(1, 2);
    command->add_option(
        "--board", o->board, "board.yaml (default: beside the calibration, as vexo calibrate wrote it)");
    finish_command(*command, options,
        "vexo verify monday --calib calib\n"
        "  two or three photos of the board by each camera, monday/cam0 and monday/cam1: prints errors in px and mm;\n"
        "  exit code 1: no longer right",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
