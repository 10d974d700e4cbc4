#include "base/failure.h"
#include "base/parallel.h"
#include "commands.h"
#include "host/files/output_folder.h"
#include "host/files/shape_format.h"
#include "host/reports/merge_text.h"
#include "host/results/merge_report.h"
#include "merge_poses.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <array>
#include <memory>
#include <set>

namespace vexo::app {

namespace {

struct Typed {
    MergeRequest request;
    std::string out, board, rotation, angles, unit;
    bool inverse = false, accept_verdict = false;
    std::vector<double> box;
    std::vector<std::string> also; ///< names of further files
};

/// Throws UsageFailure.
MergeRequest request_of(const Typed& o)
{
    MergeRequest request = o.request;
    if (!o.board.empty()) request.poses = o.board;
    if (!o.box.empty()) request.box = cv::Vec6d(o.box.data());
    if (const char* const fault = why_invalid(request)) throw UsageFailure("merge: " + std::string(fault));
    return request;
}

ViewPoses poses_of(const Typed& o, const OnStep& on_step)
{
    const std::vector<std::string> names = names_of_results(o.request.results);
    if (!o.board.empty()) return poses_by_board(o.request.results, o.board, on_step);
    PoseReadingRequest reading { o.rotation, {}, {}, o.inverse };
    if (!o.angles.empty()) reading.degrees = o.angles == "degrees";
    if (!o.unit.empty()) reading.unit_mm = o.unit == "mm" ? 1.0 : 1000.0;
    return read_view_poses(o.request.poses, names, reading);
}

/// Refuses names of further files that cannot be written beside the others.
void check_also(const Typed& o)
{
    std::set<std::string> names { "cloud.ply", "mesh.ply", "report.json" };
    for (const std::string& name : o.also) {
        if (name.empty() || name[0] == '.' || name.find_first_of("/\\") != std::string::npos)
            throw UsageFailure("--also " + name + ": give the name of a file, which will stand in --out");
        if (!names.insert(name).second) throw UsageFailure("--also " + name + ": is written already");
        holds_mesh(name, false, false); // refuses what is no format
    }
}

void run(const GlobalOptions& global, const Typed& o)
{
    const MergeRequest request = request_of(o);
    check_also(o);
    OutputFolder out(o.out, { "merge", { "report.json" }, {}, false, global.force });
    Progress progress(global, merge_steps + 1 + (o.board.empty() ? 0 : static_cast<int>(request.results.size())));
    Merged merged = merge(request, poses_of(o, progress.on_step()), progress.on_step());
    progress.step("writing " + o.out);
    const Json report = merge_report(request, merged);
    for (const std::string& name : o.also)
        out.add(name, shape_format_of(name).make(holds_mesh(name, false, false) ? merged.mesh : merged.cloud));
    std::array<std::vector<unsigned char>, 2> files;
    in_parallel(files.size(), [&](std::size_t k) {
        Shape& shape = k == 0 ? merged.cloud : merged.mesh;
        files[k] = make_ply(shape);
        shape = Shape();
    });
    out.add("cloud.ply", std::move(files[0]));
    out.add("mesh.ply", std::move(files[1]));
    out.add("report.json", json_text(report));
    const std::vector<std::string> kept = out.commit();
    progress.finish();
    say_kept(global, kept);
    say(global, merge_lines(report));
    std::string written = ": cloud.ply, mesh.ply, report.json";
    for (const std::string& name : o.also)
        written += ", " + name;
    say(global, "result    " + o.out + written);
    put_json(global, report);
    for (const Finding& finding : merged.findings)
        if (!o.accept_verdict && finding.weight == Weight::spoils)
            throw BelowLimit("the result cannot be trusted: " + sentence(finding));
}

void declare(CLI::App& command, Typed& o)
{
    MergeRequest& r = o.request;
    command.add_option("results", r.results, "folders that vexo measure wrote, of one object from several sides")
        ->required();
    auto* poses = command.add_option("--poses", r.poses,
        "where camera 0 was at each result: lines with picture (the result's folder), x, y, z and the rotation; or a "
        "turntable's axis and step, .yaml");
    auto* board = command.add_option(
        "--board", o.board, "board.yaml of a board that stands fast beside the object and is seen in the lit frames");
    board->excludes(poses);
    command.add_option("--out", o.out, "folder for cloud.ply, mesh.ply and report.json")->required();
    command.add_option("--also", o.also,
        "further files beside them, with names and extensions as of vexo convert: mesh.glb, mesh.stl, cloud.pcd");
    auto* rotation = command.add_option("--rotation", o.rotation,
        "xyzw or wxyz (quaternions), vector, matrix, or Euler angles: ZYX about turning axes, xyz about fixed ones "
        "(default: as the columns are named)");
    auto* angles = command.add_option("--angles", o.angles, "degrees or radians (default: as named, else by size)");
    angles->check(CLI::IsMember({ "degrees", "radians" }));
    auto* unit = command.add_option("--unit", o.unit, "of x, y and z: mm or m (default: as named, else by their size)");
    unit->check(CLI::IsMember({ "mm", "m" }));
    for (CLI::Option* option : { rotation, angles, unit })
        option->excludes(board);
    command.add_flag("--inverse", o.inverse, "the poses are those of the common frame in the camera")->excludes(board);
    command
        .add_flag("--rectified", r.rectified,
            "the poses are those of rectified camera 0, whose axes cloud.ply has (default: of raw camera 0)")
        ->excludes(board);
    command.add_flag("--accept-verdict", o.accept_verdict, "exit code 0 also where a finding spoils the result");
    command.add_option("--box", o.box, "only points within X0 Y0 Z0 X1 Y1 Z1, mm in the axes of each cloud.ply")
        ->type_name("X0 .. Z1")
        ->expected(6);
}

} // namespace

void add_merge(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<Typed>();
    CLI::App* command = app.add_subcommand("merge", "results of one object from several sides -> one cloud, one mesh");
    declare(*command, *o);
    add_force(*command, global);
    finish_command(*command, global,
        "vexo merge r/view0 r/view1 r/view2 --poses poses.csv --out whole\n"
        "  refines the poses, keeps each place once; whole/cloud.ply says of each point the view it is from\n"
        "  vexo merge r/view* --poses turntable.yaml --out whole --also mesh.glb\n"
        "  the mesh for a browser or a viewer, too\n"
        "  what stands still while a turntable turns, such as a wall, is cut away with --box",
        [o, &global] { run(global, *o); });
}

} // namespace vexo::app
