#include "board_file.h"
#include "common.h"
#include "frames.h"
#include "pattern_files.h"
#include "report.h"

#include "sim/calibration.h"
#include "sim/capture.h"
#include "sim/scenes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct SimulateOptions {
    std::string scene;
    std::string out;
    std::vector<int> size = { 1280, 1024 };
    std::vector<int> projector = { 1024, 768 };
    std::string method = name_of(sim::RigOptions().method);
    sim::RigOptions rig;
    std::string patterns, swap;
    std::string board;
    sim::CalibrationOptions photos;
    std::vector<CLI::Option*> only_scenes, only_photos; ///< what has no meaning for the other kind of series
};

/// The rig, from options given in other words.
sim::RigOptions rig_of(const SimulateOptions& o)
{
    sim::RigOptions rig = o.rig;
    rig.method = method_named(o.method).value();
    rig.image_size = { o.size[0], o.size[1] };
    rig.projector_size = { o.projector[0], o.projector[1] };
    if (!o.swap.empty()) {
        const auto [a, b] = parse_range(o.swap, "--swap");
        rig.swapped = { static_cast<int>(std::clamp(a, -1.0, 1e6)), static_cast<int>(std::clamp(b, -1.0, 1e6)) };
        if (rig.swapped[0] != a || rig.swapped[1] != b || a < 0 || b < 0 || a == b)
            throw Failure("--swap " + o.swap + ": give the numbers of two frames, as in 10:11");
    }
    return rig;
}

void reject(const std::vector<CLI::Option*>& options, const std::string& why)
{
    for (const CLI::Option* option : options)
        if (option->count() > 0) throw Failure(option->get_name() + ": " + why);
}

/// Also removes pictures called `what` of an earlier, longer series.
void write(sim::Files& files, const std::string& folder, const std::string& what)
{
    constexpr int most_pictures = 100; // two digits
    OutputFolder out(folder);
    for (auto& [name, bytes] : files)
        out.add(name, std::move(bytes));
    for (int camera = 0; camera < 2; ++camera)
        for (int k = 0; k < most_pictures; ++k)
            out.drop(sim::picture_name(camera, what, k));
    out.commit();
}

// --- scenes ----------------------------------------------------------------------------------------

/// Grey levels of a pattern's picture, whose rows must all be the same: the rig's light varies along columns only.
std::vector<double> projected_row(const std::string& path)
{
    const cv::Mat picture = read_grey(path);
    for (int y = 1; y < picture.rows; ++y)
        if (cv::norm(picture.row(y), picture.row(0), cv::NORM_INF) > 0)
            throw Failure(path + ": its rows differ; only upright stripes can be projected");
    const cv::Mat_<uchar> row = picture.row(0);
    return { row.begin(), row.end() };
}

/// Projects the pictures that `vexo patterns` wrote, and sets the rig to what they were made for.
sim::Pattern load_patterns(const std::string& folder, sim::RigOptions& rig)
{
    const std::string path = (fs::path(folder) / "patterns.json").string();
    const Json json = read_json(path);
    sim::Pattern pattern;
    const bool named = json.contains("method") && json["method"].is_string();
    const auto method = method_named(named ? json["method"].get<std::string>() : "");
    if (!method || *method == vexo::Method::sgbm)
        throw Failure(path + ": names no method whose patterns can be projected; vexo patterns writes such a file");
    pattern.method = *method;
    const bool multi = *method == vexo::Method::multi_phase;
    for (int i = 0; i < (multi ? 3 : 1); ++i)
        pattern.periods.push_back(static_cast<int>(
            std::clamp(number_in(json, multi ? "/periods/" + std::to_string(i) : "/period", path), 0.0, 1e4)));
    for (std::size_t i = 0; i < frame_count(*method); ++i)
        pattern.frames.push_back(projected_row((fs::path(folder) / frame_name(i)).string()));
    rig.method = pattern.method;
    if (multi)
        rig.periods = pattern.periods;
    else
        rig.fringe_period = pattern.periods[0];
    rig.projector_size.width = static_cast<int>(pattern.frames[0].size());
    rig.projector_size.height = static_cast<int>(std::clamp(number_in(json, "/projector/1", path), 0.0, 1e5));
    return pattern;
}

/// Refuses what cannot be decoded or simulated.
void check_method(const sim::RigOptions& rig)
{
    if (rig.method == vexo::Method::multi_phase) check_periods(rig.periods);
    if (const char* fault = sim::why_invalid(rig)) throw Failure(std::string("simulate: ") + fault);
}

void say_capture(const GlobalOptions& global, const SimulateOptions& o, const sim::RigOptions& rig, const Json& result)
{
    const long long surface = result["surface_pixels"], visible = result["visible_pixels"];
    const int frames = result["frames"];
    say(global,
        o.out + ": " + std::to_string(frames) + (frames == 1 ? " frame" : " frames")
            + " of each camera, cameras.yaml, truth.tiff, visible.png, visible1.png, scene.json");
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

void simulate_scene(const SimulateOptions& o, const GlobalOptions& global)
{
    reject(o.only_photos, "is for calibration photos, vexo simulate calibration");
    sim::RigOptions rig = rig_of(o);
    const sim::Pattern pattern = [&] {
        if (!o.patterns.empty()) return load_patterns(o.patterns, rig);
        check_method(rig);
        return sim::pattern_of(rig);
    }();
    check_method(rig);
    for (const int frame : rig.swapped)
        if (static_cast<std::size_t>(frame) >= pattern.frames.size())
            throw Failure("--swap " + o.swap + ": there are frames 0 to " + std::to_string(pattern.frames.size() - 1));
    check_output_folder(o.out);

    Progress progress(global, sim::capture_steps(pattern) + 1);
    sim::Capture capture
        = sim::make_capture(o.scene, rig, pattern, [&progress](const std::string& what) { progress.step(what); });
    progress.step("writing");
    write(capture.files, o.out, "frame");
    progress.finish();

    auto result = Json::parse(capture.scene_json);
    say_capture(global, o, rig, result);
    result["out"] = o.out;
    put_json(global, result);
}

// --- photos of a calibration board -----------------------------------------------------------------

void simulate_photos(const SimulateOptions& o, const GlobalOptions& global)
{
    reject(o.only_scenes, "has no meaning for calibration photos");
    const BoardFile board = o.board.empty() ? BoardFile() : load_board(o.board);
    sim::CalibrationOptions photos = o.photos;
    photos.rig = rig_of(o);
    photos.board = board.layout;
    if (const char* fault = sim::why_invalid(photos)) throw Failure(std::string("simulate: ") + fault);
    check_output_folder(o.out);

    Progress progress(global, photos.views + 1);
    sim::Files files = sim::make_calibration(photos, [&progress](const std::string& what) { progress.step(what); });
    sim::add_text("board.yaml", board_yaml(board), files);
    progress.step("writing");
    write(files, o.out, "view");
    progress.finish();

    say(global,
        o.out + ": " + std::to_string(photos.views)
            + " photos of each camera, board.yaml; the true cameras and poses are in truth.json");
    say(global, "  board: " + describe(board));
    put_json(
        global, { { "out", o.out }, { "views", photos.views }, { "board", "board.yaml" }, { "truth", "truth.json" } });
}

void simulate(const SimulateOptions& o, const GlobalOptions& global)
{
    if (o.scene == "calibration")
        simulate_photos(o, global);
    else
        simulate_scene(o, global);
}

// --- options ---------------------------------------------------------------------------------------

void add_rig_options(CLI::App& command, SimulateOptions& o)
{
    command.add_option("--size", o.size, "camera image, WIDTHxHEIGHT, px")
        ->delimiter('x')
        ->expected(2)
        ->capture_default_str();
    command.add_option("--distance", o.rig.distance_mm, "from the baseline to the middle of the scene, mm")
        ->capture_default_str();
    command.add_option("--baseline", o.rig.baseline_mm, "between the optical centres, mm")->capture_default_str();
    command
        .add_option("--toe-in", o.rig.toe_in_deg,
            "each camera turned inwards, degrees (default: both look at the middle of the scene)")
        ->check(CLI::Range(0.0, 45.0));
    command.add_option("--exposure", o.rig.exposure, "factor on all light")->capture_default_str();
    command.add_option("--noise", o.rig.noise, "standard deviation at grey 128, grey levels; 0: none")
        ->capture_default_str();
    command.add_option("--seed", o.rig.seed, "of the noise")
        ->check([](const std::string& text) {
            const bool number = text.find_first_not_of("0123456789") == std::string::npos && text.size() <= 18;
            return number ? std::string() : text + " is no whole number of at most 18 digits";
        })
        ->capture_default_str();
}

void add_scene_options(CLI::App& command, SimulateOptions& o)
{
    const auto add = [&](const std::string& name, auto& value, const std::string& what) {
        CLI::Option* option = command.add_option(name, value, what)->group("Scenes");
        o.only_scenes.push_back(option);
        return option;
    };
    add("--method", o.method, "gray-phase (13 frames), multi-phase (14), or sgbm (1, painted, under flat light)")
        ->check(CLI::IsMember({ "gray-phase", "multi-phase", "sgbm" }))
        ->capture_default_str();
    add("--projector", o.projector, "WIDTHxHEIGHT, px")->delimiter('x')->expected(2)->capture_default_str();
    add("--period", o.rig.fringe_period, "gray-phase: fringe period, projector px")->capture_default_str();
    add("--periods", o.rig.periods, "multi-phase: three fringe periods, projector px")
        ->delimiter(',')
        ->capture_default_str();
    CLI::Option* patterns = add("--patterns", o.patterns, "project the pictures of this folder of vexo patterns");
    for (const char* other : { "--method", "--projector", "--period", "--periods" })
        patterns->excludes(command.get_option(other));
    add("--tilt", o.rig.tilt_deg, "of the plane in plane and spheres, degrees")->capture_default_str();
    add("--ambient", o.rig.ambient, "other light than the projector's, grey levels on white")->capture_default_str();
    add("--gamma", o.rig.gamma, "of the projector: light = grey^gamma")->capture_default_str();
    add("--defocus", o.rig.defocus, "standard deviation of the projector's blur, projector px")->capture_default_str();
    add("--swap", o.swap, "A:B, two frames in each other's place: a faulty capture to try vexo check on");
    add("--move", o.rig.move_mm, "the scene moves by so many mm before the last two frames: a faulty capture");
}

void add_photo_options(CLI::App& command, SimulateOptions& o)
{
    const auto add = [&](const std::string& name, auto& value, const std::string& what) {
        CLI::Option* option = command.add_option(name, value, what)->group("Calibration photos");
        o.only_photos.push_back(option);
        return option;
    };
    add("--board", o.board, "board.yaml of vexo board (default: the board of 19 x 15 markers)");
    add("--views", o.photos.views, "poses of the board")->capture_default_str();
    add("--max-tilt", o.photos.max_tilt_deg, "of the board, degrees")->capture_default_str();
    add("--blur", o.photos.blur, "standard deviation of the cameras' blur, px")->capture_default_str();
    add("--gradient", o.photos.gradient, "brightest over darkest light across the picture")->capture_default_str();
}

} // namespace

void add_simulate(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<SimulateOptions>();
    CLI::App* command = app.add_subcommand(
        "simulate", "a virtual rig records a scene or photos of a calibration board, and the truth");
    std::vector<std::string> scenes = sim::scene_names();
    scenes.push_back("calibration");
    command->add_option("scene", o->scene, "what stands before the rig")->required()->check(CLI::IsMember(scenes));
    command->add_option("--out", o->out, "folder for the pictures; made when missing")->required();
    add_rig_options(*command, *o);
    add_scene_options(*command, *o);
    add_photo_options(*command, *o);
    finish_command(*command, options,
        "vexo simulate bust --out scan\n"
        "  renders 13 frames of each camera into scan/cam0 and scan/cam1, beside the cameras' calibration and the true "
        "depth\n"
        "  vexo simulate calibration --out cal --views 16\n"
        "  renders 16 photos of the calibration board by each camera, for vexo calibrate",
        [o, &options] { simulate(*o, options); });
}

} // namespace vexo::app
