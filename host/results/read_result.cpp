#include "host/results/read_result.h"

#include "base/failure.h"
#include "host/files/ply.h"
#include "host/measurement/causes.h"
#include "host/verdict/finding.h"
#include "vexo/limits.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <utility>

namespace vexo {

namespace fs = std::filesystem;

namespace {

std::optional<cv::Matx33d> raw_from_rectified_in(const Json& report, const std::string& path)
{
    const Json::json_pointer where("/camera/rectifying_rotation");
    if (!report.contains(where)) return std::nullopt;
    cv::Matx33d rotation;
    for (int i = 0; i < 9; ++i)
        rotation.val[i] = number_in(report, "/camera/rectifying_rotation/" + std::to_string(i), path);
    return rotation.t();
}

/// Noise of the fringes of both cameras under "/fringes/camN" + `where`.
PeriodNoise noise_in(const Result& r, const std::string& where, bool periods)
{
    const auto get = [&](const std::string& camera, const std::string& key) {
        return number_in(r.report, "/fringes/" + camera + where + key, r.report_path);
    };
    return { periods ? get("cam0", "/period") : 0.0, { get("cam0", "/phase_noise"), get("cam1", "/phase_noise") },
        get("cam1", "/length_px") };
}

std::optional<double> predict(const Result& r)
{
    if (!r.report.contains("fringes") || number_in(r.report, "/parameters/datatype", r.report_path) != 0.0)
        return std::nullopt;
    const bool multi = r.method == "multi-phase";
    const int periods = multi ? 3 : 1;
    std::vector<PeriodNoise> noise;
    noise.reserve(static_cast<std::size_t>(periods));
    for (int f = 0; f < periods; ++f)
        noise.push_back(noise_in(r, multi ? "/periods/" + std::to_string(f) : "", multi));
    const double fit_points = number_in(r.report, "/parameters/fit_points", r.report_path);
    return predicted_noise(multi ? multi_noise(noise) : gray_noise(noise[0]), fit_points, r.f * r.baseline, r.cloud);
}

} // namespace

void refuse_empty(const Result& r)
{
    if (!r.cloud.empty()) return;
    const std::string nothing = r.report_path + ": this result holds no points";
    const Json::json_pointer findings("/findings"), counts("/pixels/not_measured");
    if (r.report.contains(findings) && r.report[findings].is_array())
        for (const Json& finding : r.report[findings])
            if (finding.is_object() && text_in(finding, "weight", "") == word_of(Weight::spoils))
                throw Failure(nothing + ": " + text_in(finding, "text", "") + "; " + text_in(finding, "advice", ""));
    const auto method = method_named(r.method);
    CauseMap causes;
    for (std::size_t i = 0; method && i < cause_count && r.report.contains(counts); ++i) {
        const Json& count = r.report[counts].value(key_of(static_cast<Cause>(i)), Json());
        if (count.is_number_unsigned()) causes.counts[i] = count.get<std::uint32_t>();
    }
    const Cause worst = likeliest_cause(causes);
    if (causes[worst] == 0) throw Failure(nothing + "; measure again");
    throw Failure(nothing + "; most pixels: " + words_of(worst) + "; " + remedy_of(worst, *method));
}

bool is_smoothed(const Json& report)
{
    const Json::json_pointer where("/parameters/smooth");
    return report.contains(where) && report[where] != false;
}

Unit unit_of(const Result& r)
{
    if (r.report.contains("unit") && !r.report["unit"].is_string())
        throw Failure(r.report_path + ": its unit is no text; run vexo measure again");
    return unit_named(text_in(r.report, "unit", "mm"), r.report_path + ": unit");
}

Result read_result(const std::string& folder)
{
    Result r;
    r.report_path = (fs::path(folder) / "report.json").string();
    r.report = read_json(r.report_path);
    if (r.report.contains("views"))
        throw Failure(r.report_path + ": several results that vexo merge joined; name one that it was made from");
    const auto get = [&r](const std::string& pointer) { return number_in(r.report, pointer, r.report_path); };
    r.method = text_in(r.report, "method", "gray-phase");
    r.f = get("/camera/f");
    r.cx = get("/camera/cx");
    r.cy = get("/camera/cy");
    r.baseline = get("/camera/baseline");
    r.disparity_at_infinity = get("/camera/disparity_at_infinity");
    const double width = get("/camera/output_size/0"), height = get("/camera/output_size/1");
    constexpr double least = 1e-9, most = 1e15; // of any unit and any camera
    if (!(r.f > least && r.baseline > least && r.f * r.baseline < most) || !is_picture_size(width, height))
        throw Failure(r.report_path + ": f, baseline or size make no sense; run vexo measure again");
    r.size = { static_cast<int>(width), static_cast<int>(height) };
    r.raw_from_rectified = raw_from_rectified_in(r.report, r.report_path);
    PlyCloud cloud = read_ply_cloud((fs::path(folder) / "cloud.ply").string());
    r.cloud = std::move(cloud.points);
    r.sigma = std::move(cloud.sigma);
    r.decode_and_match_seconds = get("/seconds/decode_and_rectify") + get("/seconds/match_and_triangulate");
    if (!r.cloud.empty()) r.predicted_noise = predict(r);
    return r;
}

} // namespace vexo
