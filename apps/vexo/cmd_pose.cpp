#include "base/failure.h"
#include "base/pictures.h"
#include "base/text.h"
#include "commands.h"
#include "host/calibration/poses.h"
#include "host/cameras/calibration_files.h"
#include "host/files/output_folder.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct PoseOptions {
    std::vector<std::string> images;
    std::string calib, board, out;
    int camera = 0;
};

std::string words(const PosedPicture& posed)
{
    if (!posed.pose) return posed.reason;
    const cv::Vec3d& t = posed.pose->tvec;
    return "O marker at " + number(t[0], 2) + ", " + number(t[1], 2) + ", " + number(t[2], 2) + " mm, tilted by "
        + number(posed.tilt_deg, 1) + " degrees, rms " + number(posed.pose->rms_px, 3) + " px";
}

/// Of a calibration of one camera or of both.
CalibratedCamera camera_of(const PoseOptions& o)
{
    const CalibrationFiles calibration = find_calibration({ o.calib });
    if (calibration.kind == CalibrationFiles::Kind::cameras)
        return read_camera(calibration.files.front(), "cam" + std::to_string(o.camera));
    const cv::Size frames = read_grey(o.images.front()).size(); // where the files do not say it
    return read_cameras(calibration, frames)[static_cast<std::size_t>(o.camera)];
}

void run(const PoseOptions& o, const GlobalOptions& options)
{
    const BoardFile board = load_board(o.board);
    const CalibratedCamera camera = camera_of(o);
    std::unique_ptr<OutputFolder> out;
    if (!o.out.empty())
        out = std::make_unique<OutputFolder>(o.out, Owner { "pose", { "poses.json" }, {}, false, options.force });

    Progress progress(options, static_cast<int>(o.images.size()));
    const std::vector<PosedPicture> all = find_poses(o.images, camera, board, progress.on_step());
    progress.finish();

    Json json = Json::array();
    bool solved = false;
    for (const PosedPicture& posed : all) {
        solved = solved || posed.pose.has_value();
        const std::string stem = fs::path(posed.picture.name).stem().string();
        if (out) out->add(std::to_string(json.size()) + "_" + stem + ".jpg", posed.picture.drawing);
        json.push_back(to_json(posed));
        say(options, posed.picture.path + ": " + words(posed));
    }
    if (out) {
        out->add("poses.json", json_text(json));
        say_kept(options, out->commit());
    }
    put_json(options, json);
    if (!solved) throw BelowLimit("no pose: " + o.images[0] + ": " + all[0].reason);
}

} // namespace

void add_pose(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<PoseOptions>();
    CLI::App* command
        = app.add_subcommand("pose", "pictures of the board and a calibrated camera -> where the board stands");
    command->add_option("images", o->images, "pictures of the board")->required();
    command
        ->add_option(
            "--calib", o->calib, "folder that vexo calibrate wrote, its cameras.yaml, or OpenCV's intrinsics.yml")
        ->required();
    command->add_option("--board", o->board, "board.yaml")->required();
    command->add_option("--camera", o->camera, "which camera of the file took the pictures: 0 or 1")
        ->check(CLI::Range(0, 1))
        ->capture_default_str();
    command->add_option("--out", o->out, "folder for poses.json and drawings with the board's axes (default: none)");
    add_force(*command, options);
    finish_command(*command, options,
        "vexo pose view07.png --calib calib/cameras.yaml --board calib/board.yaml\n  prints where the O marker is in "
        "the camera's axes; --json gives the 4x4 matrix board -> camera",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
