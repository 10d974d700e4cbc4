#include "base/failure.h"
#include "base/text.h"
#include "commands.h"
#include "host/calibration/board_file.h"
#include "host/files/output_folder.h"
#include "sim/capture.h"
#include "sim/poses.h"
#include "sim/turntable.h"
#include "simulate_options.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace vexo::app {

namespace {

OutputFolder folder_of(const SimulateOptions& o, const GlobalOptions& global)
{
    return { o.out, { "simulate", { "truth.json", "scene.json" }, {}, false, global.force } };
}

void write(sim::Files& files, OutputFolder& out, const GlobalOptions& global)
{
    for (auto& [name, bytes] : files)
        out.add(name, std::move(bytes));
    say_kept(global, out.commit());
}

/// @param out  folder of the capture
void say_capture(const GlobalOptions& global, const std::string& out, const sim::RigOptions& rig, const Json& result)
{
    const long long surface = result["surface_pixels"], visible = result["visible_pixels"];
    const int frames = result["frames"];
    say(global,
        out + ": " + std::to_string(frames) + (frames == 1 ? " frame" : " frames")
            + " of each camera, cameras.yaml, capture.json, truth.tiff, visible.png, visible1.png, scene.json");
    say(global,
        "  " + grouped(surface) + " camera-0 pixels see the surface; "
            + percent(static_cast<double>(visible), static_cast<double>(surface))
            + " of them lit and seen by both cameras");
    if (rig.swapped[0] != rig.swapped[1])
        say(global,
            "  frames " + std::to_string(rig.swapped[0]) + " and " + std::to_string(rig.swapped[1]) + " are exchanged");
    if (rig.move_mm > 0)
        say(global, "  the scene moves by " + number(rig.move_mm, 2) + " mm before the last two frames");
}

/// Captures that belong together, in folders of their own.
struct Shot {
    std::string folder;
    sim::RigOptions rig;
};

/// Where the cameras of all views were, in the folder above theirs.
void add_turntable(const std::vector<Shot>& shots, sim::Files& files)
{
    std::vector<sim::NamedPose> poses;
    poses.reserve(shots.size());
    for (const Shot& shot : shots)
        poses.push_back({ shot.folder, sim::inverse(sim::cam0_from_scene(sim::make_rig(shot.rig))) });
    sim::add_text("poses.csv", sim::poses_text(poses), files);
    sim::add_text("turntable.yaml", sim::turntable_yaml(sim::make_rig(shots[0].rig), shots[1].rig.turned_deg), files);
}

void add_exposures(const std::vector<Shot>& shots, sim::Files& files)
{
    Json manifest { { "schema", 1 }, { "exposures", Json::array() } };
    for (const Shot& shot : shots)
        manifest["exposures"].push_back(shot.folder);
    sim::add_text("capture.json", manifest.dump(2) + "\n", files);
}

std::vector<Shot> shots_of(const SimulateOptions& o, const sim::RigOptions& rig)
{
    std::vector<Shot> shots;
    for (std::size_t i = 0; o.turntable > 0 && i < static_cast<std::size_t>(o.turntable); ++i)
        shots.push_back(
            { "view" + std::to_string(i), sim::on_turntable(rig, i, static_cast<std::size_t>(o.turntable)) });
    for (std::size_t i = 0; o.turntable == 0 && i < o.exposures.size(); ++i)
        shots.push_back({ exposure_folder(o.exposures[i]), sim::at_exposure(rig, o.exposures[i], i) });
    return shots;
}

void simulate_series(const SimulateOptions& o, const sim::RigOptions& rig, const sim::Pattern& pattern,
    OutputFolder& out, const GlobalOptions& global)
{
    const std::vector<Shot> shots = shots_of(o, rig);
    Progress progress(global, static_cast<int>(shots.size()) * sim::capture_steps(pattern) + 1);
    sim::Files files;
    std::vector<Json> made;
    for (const Shot& shot : shots) {
        sim::Capture capture = sim::make_capture(o.scene, shot.rig, pattern, progress.on_step());
        for (auto& [file, bytes] : capture.files)
            files.emplace_back(shot.folder + "/" + file, std::move(bytes));
        made.push_back(Json::parse(capture.scene_json));
    }
    (o.turntable > 0 ? add_turntable : add_exposures)(shots, files);
    progress.step("writing");
    write(files, out, global);
    progress.finish();
    Json result { { "out", o.out } };
    for (std::size_t i = 0; i < shots.size(); ++i) {
        const std::string folder = o.out + "/" + shots[i].folder;
        say_capture(global, folder, rig, made[i]);
        made[i]["out"] = folder;
        result[o.turntable > 0 ? "views" : "exposures"].push_back(made[i]);
    }
    if (o.turntable > 0)
        say(global, o.out + ": poses.csv, where camera 0 was at each view; turntable.yaml, the axis of the turns");
    put_json(global, result);
}

void simulate_scene(const SimulateOptions& o, const GlobalOptions& global)
{
    reject(o.only_photos, "is for calibration photos, vexo simulate calibration");
    sim::RigOptions rig = rig_of(o);
    const sim::Pattern pattern = pattern_of(o, rig);
    for (const int frame : rig.swapped)
        if (static_cast<std::size_t>(frame) >= pattern.frames.size())
            throw UsageFailure(
                "--swap " + o.swap + ": there are frames 0 to " + std::to_string(pattern.frames.size() - 1));
    OutputFolder out = folder_of(o, global);
    if (o.exposures.size() > 1 || o.turntable > 0) return simulate_series(o, rig, pattern, out, global);

    Progress progress(global, sim::capture_steps(pattern) + 1);
    sim::Capture capture = sim::make_capture(o.scene, rig, pattern, progress.on_step());
    progress.step("writing");
    write(capture.files, out, global);
    progress.finish();

    auto result = Json::parse(capture.scene_json);
    say_capture(global, o.out, rig, result);
    result["out"] = o.out;
    put_json(global, result);
}

void simulate_photos(const SimulateOptions& o, const GlobalOptions& global)
{
    reject(o.only_scenes, "has no meaning for calibration photos");
    const BoardFile board = o.board.empty() ? BoardFile() : load_board(o.board);
    sim::CalibrationOptions photos = photos_of(o);
    photos.board = board.layout;
    if (const char* fault = sim::why_invalid(photos)) throw UsageFailure(std::string("simulate: ") + fault);
    OutputFolder out = folder_of(o, global);

    Progress progress(global, photos.views + 1);
    sim::Files files = sim::make_calibration(photos, progress.on_step());
    sim::add_text("board.yaml", board_yaml(board), files);
    progress.step("writing");
    write(files, out, global);
    progress.finish();

    say(global,
        o.out + ": " + std::to_string(photos.views) + " photos of each camera, board.yaml"
            + (photos.robot ? ", poses.csv" : "") + "; the true cameras and poses are in truth.json");
    say(global, "  board: " + describe(board));
    put_json(
        global, { { "out", o.out }, { "views", photos.views }, { "board", "board.yaml" }, { "truth", "truth.json" } });
}

void run(const SimulateOptions& o, const GlobalOptions& options)
{
    if (o.scene == "calibration")
        simulate_photos(o, options);
    else
        simulate_scene(o, options);
}

} // namespace

void add_simulate(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<SimulateOptions>();
    CLI::App* command = app.add_subcommand(
        "simulate", "a virtual rig records a scene or photos of a calibration board, and the truth");
    declare(*command, *o);
    add_force(*command, options);
    finish_command(*command, options,
        "vexo simulate bust --out scan\n"
        "  renders 13 frames of each camera into scan/cam0 and scan/cam1, beside the cameras' calibration and "
        "the true depth\n"
        "  vexo simulate bust --turntable 8 --out turns\n"
        "  renders turns/view0 to view7, between which the bust was turned by 45 degrees, for vexo merge\n"
        "  vexo simulate calibration --out cal --views 16\n"
        "  renders 16 photos of the calibration board by each camera, for vexo calibrate",
        [o, &options] { run(*o, options); });
}

} // namespace vexo::app
