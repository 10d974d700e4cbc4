#include "base/failure.h"
#include "base/pictures.h"
#include "commands.h"
#include "host/calibration/hand_eye_views.h"
#include "host/cameras/calibration_files.h"
#include "host/cameras/rectification.h"
#include "host/captures/find_frames.h"
#include "host/files/output_folder.h"
#include "host/reports/hand_eye_report.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct HandEyeOptions {
    std::string poses, board, photos, out, setup, rotation, angles, unit;
    std::vector<std::string> calib;
    bool inverse = false, transposed = false;
};

PoseReadingRequest reading_asked(const HandEyeOptions& o)
{
    PoseReadingRequest request { o.rotation, {}, {}, o.inverse, o.transposed };
    if (!o.angles.empty()) request.degrees = o.angles == "degrees";
    if (!o.unit.empty()) request.unit_mm = o.unit == "mm" ? 1.0 : 1000.0;
    return request;
}

std::optional<HandEyeSetup> setup_asked(const HandEyeOptions& o)
{
    if (o.setup.empty()) return std::nullopt;
    return o.setup == name_of(HandEyeSetup::eye_in_hand) ? HandEyeSetup::eye_in_hand : HandEyeSetup::eye_to_hand;
}

/// Photos of camera 0 stand in cam0 where those of a pair lie together.
std::string photos_of(const HandEyeOptions& o)
{
    const fs::path cam0 = fs::path(o.photos) / "cam0";
    std::error_code ignored;
    return fs::is_directory(cam0, ignored) ? cam0.string() : o.photos;
}

struct Camera0 {
    CalibratedCamera camera;
    std::optional<cv::Matx33d> rectifying_rotation; ///< nothing for a single camera
    std::vector<std::string> files;
};

Camera0 camera_of(const HandEyeOptions& o, const std::string& photos)
{
    const CalibrationFiles calibration = find_calibration(o.calib);
    const std::string& last = calibration.files.back();
    if (calibration.kind == CalibrationFiles::Kind::cameras && !has_camera(last, "cam1"))
        return { read_camera(calibration.files.front(), "cam0"), {}, calibration.files };
    const std::vector<std::string> pictures = find_frames(photos);
    if (pictures.empty()) throw Failure(photos + ": no pictures found");
    const auto pair = read_cameras(calibration, read_grey(pictures.front()).size()); // where the files do not say it
    return { pair[0], rectify(pair, pair[0].size, -1.0, 0, pair[0].size).rotation0, calibration.files };
}

void run(const HandEyeOptions& o, const GlobalOptions& options)
{
    HandEyeReport report;
    const RobotPoseFile poses = read_robot_poses(o.poses);
    report.reading = reading_of(poses, reading_asked(o));
    const BoardFile board = load_board(o.board);
    const std::string photos = photos_of(o);
    const Camera0 camera = camera_of(o, photos);
    report.rectifying_rotation = camera.rectifying_rotation;
    report.files = { o.poses, o.board };
    report.files.insert(report.files.end(), camera.files.begin(), camera.files.end());
    OutputFolder out(o.out, Owner { "handeye", { "handeye.json" }, {}, false, options.force });

    Progress progress(options, static_cast<int>(poses.rows.size()));
    report.seen = see_hand_eye(poses, photos, camera.camera, board, progress.on_step());
    progress.finish();
    report.found = find_hand_eye(report.seen.views, { report.reading, setup_asked(o), middle_of(board) });

    const Json json = hand_eye_json(report);
    out.add("handeye.yaml", hand_eye_yaml(report));
    out.add("handeye.json", json_text(json));
    say_kept(options, out.commit());
    say(options, hand_eye_lines(report));
    say(options, "result: " + o.out + "/handeye.yaml, handeye.json");
    put_json(options, json);
    for (const Finding& finding : report.findings())
        if (finding.weight == Weight::spoils) throw BelowLimit("not good enough: " + sentence(finding));
}

void declare(CLI::App& command, HandEyeOptions& o)
{
    command.add_option("--poses", o.poses, "the robot's poses, one line each: picture, x, y, z and the rotation")
        ->required();
    command.add_option("--board", o.board, "board.yaml, as vexo calibrate wrote it with the board's shape")->required();
    command.add_option("--photos", o.photos, "photos of the board by camera 0: a folder (or its cam0/), or a pattern")
        ->required();
    command.add_option("--calib", o.calib, "folder that vexo calibrate wrote, or camera files as for vexo measure")
        ->required()
        ->expected(1, 2);
    command.add_option("--out", o.out, "folder for handeye.yaml and handeye.json")->required();
    command
        .add_option("--setup", o.setup,
            "eye-in-hand (the robot moves the camera) or eye-to-hand (it moves the board); default: the one that fits")
        ->check(CLI::IsMember({ "eye-in-hand", "eye-to-hand" }));
    command.add_option("--rotation", o.rotation,
        "xyzw or wxyz (quaternions), vector, matrix, or Euler angles: ZYX about turning axes, xyz about fixed ones "
        "(default: as the columns are named)");
    command.add_option("--angles", o.angles, "degrees or radians (default: as named, else by their size)")
        ->check(CLI::IsMember({ "degrees", "radians" }));
    command.add_option("--unit", o.unit, "of x, y and z: mm or m (default: as named, else by their size)")
        ->check(CLI::IsMember({ "mm", "m" }));
    command.add_flag("--inverse", o.inverse, "the poses are those of the base in the gripper");
    command.add_flag("--transposed", o.transposed,
        "the rotations alone are those of the base in the gripper: conjugated quaternions, columns for rows");
}

} // namespace

void add_handeye(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<HandEyeOptions>();
    CLI::App* command = app.add_subcommand(
        "handeye", "poses of a robot and photos of the board -> where the camera is in the robot's frame");
    declare(*command, *o);
    add_force(*command, options);
    finish_command(*command, options,
        "vexo handeye --poses poses.csv --board calib/board.yaml --photos photos --calib calib --out hand\n"
        "  15 poses: hand/handeye.yaml has the camera in the gripper's frame (or the base's), with its error;\n"
        "  exit code 1: the poses do not fit, and which convention would",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
