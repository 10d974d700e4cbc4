#include "host/results/read_result.h"

#include "base/failure.h"
#include "host/files/ply.h"
#include "host/verdict/finding.h"
#include "vexo/limits.h"

#include <cstddef>
#include <filesystem>
#include <utility>

namespace vexo {

namespace fs = std::filesystem;

namespace {

cv::Matx33d rotation_in(const Json& report, const std::string& path)
{
    const Json::json_pointer where("/camera/rectifying_rotation");
    if (!report.contains(where) || !report.at(where).is_array() || report.at(where).size() != 9)
        throw Failure(path + ": says no rectifying rotation; measure with a YAML calibration");
    cv::Matx33d rotation;
    for (int i = 0; i < 9; ++i)
        rotation.val[i] = number_in(report, "/camera/rectifying_rotation/" + std::to_string(i), path);
    return rotation;
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
    std::vector<PeriodNoise> noise;
    for (int f = 0; f < (multi ? 3 : 1); ++f)
        noise.push_back(noise_in(r, multi ? "/periods/" + std::to_string(f) : "", multi));
    const double fit_points = number_in(r.report, "/parameters/fit_points", r.report_path);
    return predicted_noise(multi ? multi_noise(noise) : gray_noise(noise[0]), fit_points, r.f * r.baseline, r.cloud);
}

/// What the report's findings say of a measurement without points: ": text; advice" of the first that spoils it.
std::string why_empty(const Json& report)
{
    if (!report.contains("findings") || !report["findings"].is_array()) return "";
    for (const Json& finding : report["findings"]) {
        if (!finding.is_object() || text_in(finding, "weight", "") != word_of(Weight::spoils)) continue;
        return ": "
            + sentence({ "", Weight::spoils, text_in(finding, "where", ""), text_in(finding, "text", ""),
                text_in(finding, "advice", "") });
    }
    return "";
}

} // namespace

Result read_result(const std::string& folder, bool may_be_empty)
{
    Result r;
    r.report_path = (fs::path(folder) / "report.json").string();
    r.report = read_json(r.report_path);
    const auto get = [&r](const std::string& pointer) { return number_in(r.report, pointer, r.report_path); };
    r.method = text_in(r.report, "method", "gray-phase");
    r.f = get("/camera/f");
    r.cx = get("/camera/cx");
    r.cy = get("/camera/cy");
    r.baseline = get("/camera/baseline");
    r.disparity_at_infinity = get("/camera/disparity_at_infinity");
    const double width = get("/camera/output_size/0"), height = get("/camera/output_size/1");
    if (!(r.f > 0.0) || !(r.baseline > 0.0) || !is_picture_size(width, height))
        throw Failure(r.report_path + ": f, baseline or size make no sense; run vexo measure again");
    r.size = { static_cast<int>(width), static_cast<int>(height) };
    r.raw_from_rectified = rotation_in(r.report, r.report_path).t();
    PlyCloud cloud = read_ply_cloud((fs::path(folder) / "cloud.ply").string());
    r.cloud = std::move(cloud.points);
    r.sigma = std::move(cloud.sigma);
    if (r.cloud.empty() && !may_be_empty) throw Failure(folder + "/cloud.ply: holds no points" + why_empty(r.report));
    r.decode_and_match_seconds = get("/seconds/decode_and_rectify") + get("/seconds/match_and_triangulate");
    if (!r.cloud.empty()) r.predicted_noise = predict(r);
    return r;
}

} // namespace vexo
