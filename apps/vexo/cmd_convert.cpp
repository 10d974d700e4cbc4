#include "base/failure.h"
#include "base/text.h"
#include "commands.h"
#include "host/cameras/unit.h"
#include "host/files/output_folder.h"
#include "host/files/shape_format.h"
#include "host/results/convert.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct Typed {
    std::string result;
    ConvertRequest request;
    bool mesh = false, points = false;
    std::vector<double> box;
};

/// Throws UsageFailure.
ConvertRequest request_of(const Typed& o)
{
    ConvertRequest request = o.request;
    request.mesh = holds_mesh(request.file, o.mesh, o.points);
    if (!o.box.empty()) request.box = cv::Vec6d(o.box.data());
    if (const char* const fault = why_invalid(request)) throw UsageFailure("convert: " + std::string(fault));
    std::error_code ignored;
    if (fs::is_directory(request.file, ignored)) throw UsageFailure(request.file + ": is a folder; name a file in it");
    return request;
}

std::vector<std::string> lines_of(const Json& figures)
{
    const std::string unit_name = figures["unit"];
    const Unit unit = unit_named(unit_name, "unit");
    std::string bounds;
    for (std::size_t k = 0; k < 3; ++k)
        bounds += std::string(k == 0 ? "" : ", ") + "xyz"[k] + " "
            + number(figures["bounds"]["low"][k].get<double>(), unit.decimals(2)) + ":"
            + number(figures["bounds"]["high"][k].get<double>(), unit.decimals(2));
    const bool mesh = figures["kind"] == "mesh";
    const std::string vertices = grouped(figures["vertices"].get<long long>());
    const std::string counts = mesh
        ? "mesh         " + vertices + " vertices, " + grouped(figures["triangles"].get<long long>()) + " triangles"
        : "points       " + vertices;
    const std::string axes = figures["axes"] == "x, y, z" ? "" : ", written as " + figures["axes"].get<std::string>();
    std::vector<std::string> lines { counts };
    if (const auto smoothed = figures["smoothed"].get<long long>(); smoothed > 0)
        lines.push_back(
            "smoothed     " + grouped(smoothed) + " points by quadratics over 7 x 7 px; sigma is that of the fit");
    lines.push_back("bounds       " + bounds + " " + unit_name);
    lines.push_back("axes         " + figures["frame"].get<std::string>() + axes);
    return lines;
}

void run(const GlobalOptions& global, const Typed& o)
{
    const ConvertRequest request = request_of(o);
    const fs::path file(request.file);
    std::error_code ignored;
    if (fs::equivalent(file, fs::path(o.result) / "cloud.ply", ignored))
        throw UsageFailure(request.file + ": is the cloud that the file is made of; name another file");
    const std::string folder = file.has_parent_path() ? file.parent_path().string() : ".";
    const std::string name = file.filename().string();
    OutputFolder out(folder, { "convert " + name, {}, {}, true, global.force });
    Progress progress(global, convert_steps + 1);
    Converted converted = convert(o.result, request, progress.on_step());
    progress.step("writing " + request.file);
    out.add(name, std::move(converted.bytes));
    out.commit();
    progress.finish();
    say(global, lines_of(converted.figures));
    say(global, "result       " + request.file);
    put_json(global, converted.figures);
}

} // namespace

void add_convert(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<Typed>();
    ConvertRequest& r = o->request;
    const CLI::Validator something(
        [](const std::string& text) { return text.empty() ? "is empty" : std::string(); }, "");
    CLI::App* cmd
        = app.add_subcommand("convert", "result -> mesh or cloud for other programs: PLY STL GLB OBJ PCD XYZ");
    cmd->add_option("result", o->result, "folder that vexo measure wrote")->required();
    cmd->add_option("--to", r.file, "file to write; .ply .stl .glb .obj .pcd .xyz say the format")->required();
    auto* mesh = cmd->add_flag("--mesh", o->mesh, "triangles, as a file named mesh.*, and .stl .glb .obj, hold them");
    cmd->add_flag("--points", o->points, "points alone, as a file named cloud.*, and .ply .pcd .xyz, hold them")
        ->excludes(mesh);
    cmd->add_option("--frame", r.frame,
           "board: the axes of boardRT.yaml in the calibration's folder; or a file with a frame's place in the "
           "camera's axes, 4 x 4")
        ->check(something)
        ->type_name("board|FILE");
    cmd->add_option("--calib", r.calibration, "for --frame board: folder of the calibration (default: as measured)")
        ->check(something)
        ->type_name("DIR");
    cmd->add_option("--box", o->box, "only points within X0 Y0 Z0 X1 Y1 Z1, mm in the axes of cloud.ply")
        ->type_name("X0 .. Z1")
        ->expected(6);
    cmd->add_option("--every", r.every, "each Nth point of a cloud")->type_name("N")->capture_default_str();
    cmd->add_flag("--smooth", r.smooth,
        "put each point on the surface around it, as vexo measure --smooth does: less noise, but smaller detail goes");
    add_force(*cmd, global);
    finish_command(*cmd, global,
        "vexo convert result --to mesh.glb\n"
        "  a mesh with normals, grey and sigma; a GLB is in metres with y up, others are in the result's unit\n"
        "  vexo convert result --to part.stl --frame board --box -80 -60 500 80 60 700\n"
        "  vexo convert result --to cloud.pcd --every 4",
        [o, &global] { run(global, *o); });
}

} // namespace vexo::app
