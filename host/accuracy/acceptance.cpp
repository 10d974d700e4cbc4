#include "host/accuracy/acceptance.h"

#include "base/failure.h"
#include "base/text.h"
#include "host/accuracy/body_check.h"
#include "host/accuracy/result_in_mm.h"
#include "host/clouds/plane_fit.h"

#include <algorithm>
#include <cmath>

namespace vexo {

using Body = AcceptanceRequest::Body;

namespace {

constexpr const char* name_of(Body body)
{
    constexpr const char* names[] = { "plane", "ball", "balls", "reference" };
    return names[static_cast<std::size_t>(body)];
}

BodyCheck check_body(const Judged& judged, const AcceptanceRequest& request)
{
    switch (request.body) {
    case Body::plane:
        return check_plane(judged);
    case Body::reference:
        return check_reference(judged, request.reference);
    default:
        return check_balls(judged, request.lengths);
    }
}

Json to_json(const Region& region)
{
    if (region.box) return { { "box_mm", std::vector<double>(region.box->val, region.box->val + 6) } };
    if (region.pixels)
        return { { "pixel", { region.pixels->x, region.pixels->y, region.pixels->width, region.pixels->height } } };
    return nullptr;
}

/// What the predictions do not know.
/// @param lengths  a diameter is asked for
std::vector<Finding> unknowns(const Judged& judged, const Result& result, bool lengths)
{
    const Json::json_pointer why("/sigma/why_none");
    std::vector<Finding> findings;
    if (!judged.sigma_known) {
        const bool said = result.report.contains(why) && result.report[why].is_string();
        findings.push_back({ "sigma", Weight::unknown, "",
            "nothing can be predicted, as the points have no sigma"
                + (said ? ": " + result.report[why].get<std::string>() : std::string()),
            "measure frames of a phase method" });
    }
    if (judged.smoothed)
        findings.push_back({ "smoothed", lengths ? Weight::unknown : Weight::note, "",
            std::string(
                "the points were smoothed: neighbours are off alike, and what bends over few pixels is flattened")
                + (lengths ? "; how far off a diameter or a distance may be cannot be predicted" : ""),
            "measure without --smooth" });
    if (!judged.share)
        findings.push_back({ "calibration-share", Weight::unknown, "",
            "what the calibration itself is off by is "
                + std::string(judged.stated_share.share ? "more than it says" : "unknown")
                + ", and predictions are by sigma alone: " + judged.stated_share.doubt(),
            "measure with a cameras.yaml of vexo calibrate and its covariance.yaml beside it, whose verdict is good" });
    return findings;
}

/// The first bounded figure beyond the limit.
std::string beyond_limit(const BodyCheck& check, double limit)
{
    for (const std::string& key : check.bounded) {
        const Json& figure = check.figures.at(Json::json_pointer(key));
        const double value = figure.value("deviation_mm", figure.at("measured_mm").get<double>());
        if (std::abs(value) <= limit) continue;
        return text_in(figure, "name", "") + (figure.contains("deviation_mm") ? ", deviation " : " ") + number(value, 4)
            + " mm, lies beyond the limit of " + number(limit, 4) + " mm; " + text_in(figure, "says", "");
    }
    return "";
}

} // namespace

Accepted accept(const std::string& result_folder, const AcceptanceRequest& request, const OnStep& on_step)
{
    if (const char* const fault = why_invalid(request)) throw UsageFailure(fault);
    next_step(on_step, "reading the result");
    const Result result = read_result_in_mm(result_folder);
    const std::size_t fewest = request.body == Body::plane ? fewest_plane_points : fewest_ball_points;
    const Judged judged = judged_points(result_folder, result, request, fewest);
    next_step(on_step, "fitting");
    const BodyCheck check = check_body(judged, request);
    Accepted accepted;
    accepted.findings = unknowns(judged, result, request.body == Body::ball || request.body == Body::balls);
    accepted.findings.insert(accepted.findings.end(), check.findings.begin(), check.findings.end());
    Json acceptance { { "body", name_of(request.body) }, { "region", to_json(request.region) },
        { "points", judged.points.size() },
        { "without_sigma", judged.sigma_known ? Json(judged.without_sigma) : Json() }, { "unsure", judged.unsure } };
    acceptance.update(check.figures);
    add_share(acceptance, judged.stated_share);
    acceptance["limit_mm"] = request.limit_mm ? Json(*request.limit_mm) : Json();
    if (request.limit_mm) accepted.beyond = beyond_limit(check, *request.limit_mm);
    acceptance["within_limit"] = request.limit_mm ? Json(accepted.beyond.empty()) : Json();
    acceptance["findings"] = Json::array();
    for (const Finding& finding : accepted.findings)
        acceptance["findings"].push_back(to_json(finding));
    accepted.figures = { { "result", result_folder }, { "method", result.method }, { "acceptance", acceptance } };
    return accepted;
}

} // namespace vexo
