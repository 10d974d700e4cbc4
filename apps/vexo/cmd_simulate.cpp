#include "common.h"

#include "sim/capture.h"
#include "sim/scenes.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <memory>

namespace vexo::app {

namespace {

struct SimulateOptions {
    std::string scene;
    std::string out;
    std::vector<int> size = { 1280, 1024 };
    std::vector<int> projector = { 1024, 768 };
    sim::RigOptions rig;
};

void simulate(const SimulateOptions& o, const GlobalOptions& global)
{
    sim::RigOptions rig = o.rig;
    rig.image_size = { o.size[0], o.size[1] };
    rig.projector_size = { o.projector[0], o.projector[1] };
    if (const char* fault = sim::why_invalid(rig)) throw Failure(std::string("simulate: ") + fault);
    check_output_folder(o.out);

    Progress progress(global, sim::capture_steps() + 1);
    const sim::Capture capture
        = sim::make_capture(o.scene, rig, [&progress](const std::string& what) { progress.step(what); });
    progress.step("writing");
    sim::write_capture(capture, o.out);
    progress.finish();

    auto result = nlohmann::ordered_json::parse(capture.scene_json);
    const long long surface = result["surface_pixels"], visible = result["visible_pixels"];
    say(global,
        o.out + ": " + std::to_string(result["frames"].get<int>())
            + " frames of each camera, cameras.yaml, "
              "truth.tiff, visible.png, scene.json");
    say(global,
        "  " + grouped(surface) + " camera-0 pixels see the surface; "
            + percent(static_cast<double>(visible), static_cast<double>(surface))
            + " of them lit and seen by both cameras");
    if (global.json) {
        result["out"] = o.out;
        put_json(global, result);
    }
}

void add_rig_options(CLI::App& command, SimulateOptions& o)
{
    command.add_option("--size", o.size, "camera image, WIDTHxHEIGHT, px")
        ->delimiter('x')
        ->expected(2)
        ->capture_default_str();
    command.add_option("--projector", o.projector, "projector, WIDTHxHEIGHT, px")
        ->delimiter('x')
        ->expected(2)
        ->capture_default_str();
    command.add_option("--period", o.rig.fringe_period, "fringe period, projector px")->capture_default_str();
    command.add_option("--distance", o.rig.distance_mm, "from the baseline to the middle of the scene, mm")
        ->capture_default_str();
    command.add_option("--baseline", o.rig.baseline_mm, "between the optical centres, mm")->capture_default_str();
    command
        .add_option("--toe-in", o.rig.toe_in_deg,
            "each camera turned inwards, degrees (default: both look at the middle of the scene)")
        ->check(CLI::Range(0.0, 45.0));
    command.add_option("--tilt", o.rig.tilt_deg, "of the plane in plane and spheres, degrees")->capture_default_str();
    command.add_option("--exposure", o.rig.exposure, "factor on all light")->capture_default_str();
    command.add_option("--ambient", o.rig.ambient, "other light than the projector's, grey levels on white")
        ->capture_default_str();
    command.add_option("--noise", o.rig.noise, "standard deviation at grey 128, grey levels; 0: none")
        ->capture_default_str();
    command.add_option("--gamma", o.rig.gamma, "of the projector: light = grey^gamma")->capture_default_str();
    command.add_option("--defocus", o.rig.defocus, "standard deviation of the projector's blur, projector px")
        ->capture_default_str();
    command.add_option("--seed", o.rig.seed, "of the noise")->check(CLI::NonNegativeNumber)->capture_default_str();
}

} // namespace

void add_simulate(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<SimulateOptions>();
    CLI::App* command
        = app.add_subcommand("simulate", "a virtual rig records a scene: frames of both cameras, and the truth");
    command->add_option("scene", o->scene, "what stands before the rig")
        ->required()
        ->check(CLI::IsMember(sim::scene_names()));
    command->add_option("--out", o->out, "folder for the capture; made when missing")->required();
    add_rig_options(*command, *o);
    finish_command(*command, options,
        "vexo simulate bust --out scan\n"
        "  renders 13 frames of each camera into scan/cam0 and scan/cam1, beside the cameras' calibration and the true "
        "depth",
        [o, &options] { simulate(*o, options); });
}

} // namespace vexo::app
