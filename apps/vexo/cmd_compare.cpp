#include "base/failure.h"
#include "base/pictures.h"
#include "base/text.h"
#include "commands.h"
#include "host/accuracy/acceptance.h"
#include "host/accuracy/compare.h"
#include "host/files/output_folder.h"
#include "host/reports/compare_report.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

namespace vexo::app {

namespace {

using Body = AcceptanceRequest::Body;

struct Typed {
    std::string result, scan, reference;
    bool plane = false;
    std::vector<double> ball, balls, box;
    std::vector<int> pixel;
    std::optional<double> limit;
};

/// What is to be judged without a truth; nothing: SCAN says the truth. Throws UsageFailure.
std::optional<AcceptanceRequest> request_of(const Typed& o)
{
    const bool with_truth = !o.scan.empty();
    if (with_truth + o.plane + !o.ball.empty() + !o.balls.empty() + !o.reference.empty() != 1)
        throw UsageFailure("compare: name exactly one of SCAN, --plane, --ball, --balls and --reference");
    if (with_truth && !(o.box.empty() && o.pixel.empty()))
        throw UsageFailure("--box and --pixel choose points of a body; with SCAN all points are compared");
    if (with_truth && o.limit && !(*o.limit > 0.0)) throw UsageFailure("--limit: is a length above 0, in mm");
    if (with_truth) return std::nullopt;
    AcceptanceRequest request;
    request.body = o.plane ? Body::plane
        : !o.ball.empty()  ? Body::ball
        : !o.balls.empty() ? Body::balls
                           : Body::reference;
    request.lengths = o.ball.empty() ? o.balls : o.ball;
    request.reference = o.reference;
    request.limit_mm = o.limit;
    if (!o.box.empty()) request.region.box = cv::Vec6d(o.box.data());
    if (!o.pixel.empty()) request.region.pixels = cv::Rect(o.pixel[0], o.pixel[1], o.pixel[2], o.pixel[3]);
    if (const char* const fault = why_invalid(request)) throw UsageFailure("compare: " + std::string(fault));
    return request;
}

void judge(const GlobalOptions& global, const Typed& o, const AcceptanceRequest& request)
{
    OutputFolder out(o.result, { "compare acceptance.json", { "acceptance.json" }, {}, true, global.force });
    Progress progress(global, acceptance_steps);
    const Accepted accepted = accept(o.result, request, progress.on_step());
    out.add("acceptance.json", json_text(accepted.figures));
    out.commit();
    progress.finish();
    say(global, acceptance_lines(accepted));
    say(global, "result: " + out.path() + "/acceptance.json");
    put_json(global, accepted.figures);
    if (!accepted.beyond.empty()) throw BelowLimit(accepted.beyond);
}

void compare_with_truth(const GlobalOptions& global, const Typed& o)
{
    OutputFolder out(o.result, { "compare", { "compare.json" }, {}, true, global.force });
    Progress progress(global, compare_steps + 1);
    const Compared compared = compare(o.result, o.scan, progress.on_step());
    progress.step("making the picture");
    out.add("compare_view.png", encode(".png", error_view(compared)));
    out.add("compare.json", json_text(compared.figures));
    out.commit();
    progress.finish();
    say(global, comparison_lines(compared.figures));
    say(global, "result: " + out.path() + "/compare.json, compare_view.png");
    put_json(global, compared.figures);
    const double rms = compared.figures["error"]["rms_without_outliers"];
    if (o.limit && !(rms <= *o.limit))
        throw BelowLimit("rms of the depth error without those over 1 mm, " + number(rms, 4)
            + " mm, lies beyond the limit of " + number(*o.limit, 4) + " mm; see " + out.path() + "/compare_view.png");
}

void run(const GlobalOptions& global, const Typed& o)
{
    if (const auto request = request_of(o))
        judge(global, o, *request);
    else
        compare_with_truth(global, o);
}

} // namespace

void add_compare(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<Typed>();
    CLI::App* cmd = app.add_subcommand(
        "compare", "error of a measured cloud: against the truth of a simulated scan, a plane, balls, or a reference");
    cmd->add_option("result", o->result, "folder that vexo measure wrote")->required();
    cmd->add_option("scan", o->scan, "folder that vexo simulate wrote");
    cmd->add_flag("--plane", o->plane, "flatness of a plane");
    cmd->add_option("--ball", o->ball, "diameter of a ball of nominally D mm")->type_name("D")->expected(1);
    cmd->add_option("--balls", o->balls, "diameters and distance of two balls of nominally D1 D2 DISTANCE mm")
        ->type_name("D1 D2 DISTANCE")
        ->expected(3);
    cmd->add_option("--reference", o->reference, "distances to this cloud, a PLY in mm, after alignment");
    cmd->add_option("--box", o->box, "only points within X0 Y0 Z0 X1 Y1 Z1, mm in the axes of cloud.ply")
        ->type_name("X0 .. Z1")
        ->expected(6);
    cmd->add_option("--pixel", o->pixel, "only points seen in X Y W H of the rectified picture, px")
        ->type_name("X Y W H")
        ->expected(4);
    cmd->add_option("--limit", o->limit,
        "mm; exit code 1 when beyond: flatness, a deviation of diameter or distance, the rms distance to the "
        "reference, "
        "with SCAN the rms without errors over 1 mm");
    add_force(*cmd, global);
    finish_command(*cmd, global,
        "vexo compare result scan\n"
        "  prints rms, coverage, bias and outliers; writes result/compare.json and result/compare_view.png\n"
        "  vexo compare result --balls 40 40 150 --limit 0.02\n"
        "  judges without a truth: what was measured, and what sigma and the calibration let expect;\n"
        "  writes result/acceptance.json\n"
        "  exactly one of SCAN, --plane, --ball, --balls and --reference is to be named",
        [o, &global] { run(global, *o); });
}

} // namespace vexo::app
