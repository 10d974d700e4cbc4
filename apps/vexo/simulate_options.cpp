#include "simulate_options.h"

#include "base/failure.h"
#include "host/captures/exposure_set.h"
#include "host/captures/pattern_files.h"
#include "patterns/fringes.h"
#include "sim/scenes.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <set>
#include <sstream>

namespace vexo::app {

namespace {

constexpr int most_views = 36;

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
    command
        .add_option("--exposure", o.exposures,
            "factor on all light; several, as in 0.25,1,4, make a capture of the scene at each for vexo measure "
            "--exposures: e0.25, e1 and e4 in the folder, and a capture.json that lists them")
        ->delimiter(',')
        ->expected(1, static_cast<int>(most_exposures))
        ->allow_extra_args(false)
        ->capture_default_str();
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
        ->expected(3)
        ->allow_extra_args(false)
        ->capture_default_str();
    CLI::Option* patterns = add("--patterns", o.patterns, "project the pictures of this folder of vexo patterns");
    for (const char* other : { "--method", "--projector", "--period", "--periods" })
        patterns->excludes(command.get_option(other));
    add("--tilt", o.rig.tilt_deg, "of the plane in plane and spheres, degrees")->capture_default_str();
    add("--ambient", o.rig.ambient, "other light than the projector's, grey levels on white")->capture_default_str();
    add("--gamma", o.rig.gamma, "of the projector: light = grey^gamma")->capture_default_str();
    add("--defocus", o.rig.defocus, "standard deviation of the projector's blur, projector px")->capture_default_str();
    CLI::Option* turned = add("--turned", o.rig.turned_deg,
        "the scene is turned by so many degrees about the upright "
        "axis through its middle");
    add("--turntable", o.turntable,
        "so many captures of a scene without walls, view0, view1 and so on, between which a turntable turned it")
        ->check(CLI::Range(2, most_views))
        ->excludes(turned);
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
    add("--bow", o.photos.bend.bow_mm,
        "a bent board: so many mm the middle of the markers stands nearer to the cameras than their edge at half the "
        "longer side; negative: farther")
        ->capture_default_str();
    CLI::Option* robot = add("--robot", o.robot,
        "eye-in-hand or eye-to-hand: a robot moved the cameras, or the board; its poses are in poses.csv");
    robot->check(CLI::IsMember({ "eye-in-hand", "eye-to-hand" }));
    add("--robot-noise", o.robot_noise, "of its poses, MM,DEGREES: standard deviations along and about each axis")
        ->delimiter(',')
        ->expected(2)
        ->allow_extra_args(false)
        ->needs(robot)
        ->capture_default_str();
    add("--stretch-y", o.photos.bend.stretch_y,
        "a board printed too long along y by this share of the length: 0.001 is 0.1 %")
        ->capture_default_str();
}

/// Projects the pictures that `vexo patterns` wrote, and sets the rig to what they were made for.
sim::Pattern patterns_in(const std::string& folder, sim::RigOptions& rig)
{
    PatternRequest request;
    sim::Pattern pattern;
    for (const PatternFrame& frame : read_patterns(folder, request))
        pattern.frames.emplace_back(frame.row.begin<uchar>(), frame.row.end<uchar>());
    rig.method = pattern.method = request.method;
    rig.projector_size = request.projector;
    if (request.method == Method::multi_phase)
        rig.periods = pattern.periods = request.periods;
    else
        pattern.periods = { rig.fringe_period = request.period };
    return pattern;
}

/// Refuses what cannot be decoded or simulated.
void check_method(const sim::RigOptions& rig)
{
    if (rig.method == Method::multi_phase) check_periods(rig.periods);
    if (const char* fault = sim::why_invalid(rig)) throw UsageFailure(std::string("simulate: ") + fault);
}

} // namespace

void declare(CLI::App& command, SimulateOptions& o)
{
    std::vector<std::string> scenes = sim::scene_names();
    scenes.push_back("calibration");
    command.add_option("scene", o.scene, "what stands before the rig")->required()->check(CLI::IsMember(scenes));
    command.add_option("--out", o.out, "folder for the pictures; made when missing")->required();
    add_rig_options(command, o);
    add_scene_options(command, o);
    add_photo_options(command, o);
}

std::string exposure_folder(double exposure)
{
    std::ostringstream name;
    name << 'e' << exposure;
    return name.str();
}

void check_exposures(const SimulateOptions& o)
{
    std::set<std::string> folders;
    for (const double exposure : o.exposures) {
        if (!(exposure > 0)) throw UsageFailure("--exposure: exposures must be positive");
        if (!folders.insert(exposure_folder(exposure)).second)
            throw UsageFailure("--exposure: " + exposure_folder(exposure).substr(1) + " is named twice");
    }
    if (o.scene == "calibration" && o.exposures.size() > 1)
        throw UsageFailure("--exposure: several are for scenes; calibration photos have one");
}

void check_turntable(const SimulateOptions& o)
{
    if (o.turntable == 0) return;
    if (o.exposures.size() > 1) throw UsageFailure("--turntable: choose one exposure, which all views have");
    if (!sim::stands_free(o.scene))
        throw UsageFailure("--turntable: a turntable cannot turn the walls of " + o.scene + "; choose bust or albedo");
}

sim::RigOptions rig_of(const SimulateOptions& o)
{
    check_exposures(o);
    check_turntable(o);
    sim::RigOptions rig = o.rig;
    rig.exposure = o.exposures[0];
    rig.method = method_named(o.method).value();
    rig.image_size = { o.size[0], o.size[1] };
    rig.projector_size = { o.projector[0], o.projector[1] };
    if (!o.swap.empty()) {
        const auto [a, b] = parse_range(o.swap, "--swap");
        rig.swapped = { static_cast<int>(std::clamp(a, -1.0, 1e6)), static_cast<int>(std::clamp(b, -1.0, 1e6)) };
        if (rig.swapped[0] != a || rig.swapped[1] != b || a < 0 || b < 0 || a == b)
            throw UsageFailure("--swap " + o.swap + ": give the numbers of two frames, as in 10:11");
    }
    return rig;
}

sim::CalibrationOptions photos_of(const SimulateOptions& o)
{
    sim::CalibrationOptions photos = o.photos;
    photos.rig = rig_of(o);
    if (!o.robot.empty())
        photos.robot = sim::RobotOptions { o.robot == "eye-in-hand", o.robot_noise[0], o.robot_noise[1] };
    return photos;
}

sim::Pattern pattern_of(const SimulateOptions& o, sim::RigOptions& rig)
{
    if (o.patterns.empty()) check_method(rig);
    sim::Pattern pattern = o.patterns.empty() ? sim::pattern_of(rig) : patterns_in(o.patterns, rig);
    check_method(rig);
    for (const double exposure : o.exposures)
        check_method(sim::at_exposure(rig, exposure, 0));
    return pattern;
}

} // namespace vexo::app
