#include "host/reports/folder_info.h"

#include "base/failure.h"
#include "base/text.h"
#include "host/cameras/calibration_notes.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/covariance_share.h"
#include "host/cameras/rectification.h"
#include "host/captures/frames.h"
#include "host/captures/manifest.h"
#include "host/files/marker.h"
#include "host/reports/accuracy_info.h"
#include "host/results/read_result.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

bool holds(const std::string& folder, const char* name)
{
    std::error_code ignored;
    return fs::exists(fs::path(folder) / name, ignored);
}

/// What the files of a folder say that it is; empty: none of this program's.
std::string kind_of(const std::string& folder)
{
    const auto has = [&folder](const char* name) { return holds(folder, name); };
    if (has("report.json") && has("mesh.ply") && !has("depth.tiff")) return "several results, merged";
    if (has("report.json")) return has("cameras.yaml") ? "calibration" : "result of a measurement";
    if (has("patterns.json")) return "patterns to project";
    if (has("cam0") && has("cam1"))
        return has("truth.json") ? "photos of a calibration board" : "frames, or photos of a board, of two cameras";
    if (const auto manifest = read_manifest(folder); manifest && !manifest->exposures.empty())
        return "one scene at " + std::to_string(manifest->exposures.size()) + " exposures";
    if (has("check.json")) return "judgement of a capture";
    if (has("poses.json")) return "poses of a board";
    if (has("board.yaml")) return "calibration board to print";
    return {};
}

/// The reports that are written last, so that a folder without its own is what a killed run left.
bool lacks_its_report(const std::string& folder, const std::string& kind, const Marker& marker)
{
    if (!kind.empty() || marker.empty()) return false;
    return holds(folder, "cloud.ply") || holds(folder, "cam0") || holds(folder, "stereo.yaml");
}

void add_wholeness(const std::string& folder, const std::string& kind, Json& info)
{
    const Marker marker = read_marker(folder);
    info["whole"] = nullptr;
    if (marker.empty()) return;
    Json missing = Json::array(), changed = Json::array();
    for (const auto& [name, file] : marker) {
        const std::string hash = hash_of_file((fs::path(folder) / name).string());
        if (hash.empty())
            missing.push_back(name);
        else if (!file.holds(hash))
            changed.push_back(name);
    }
    info["command"] = marker.begin()->second.command;
    info["files"] = marker.size();
    info["whole"] = missing.empty() && changed.empty() && !lacks_its_report(folder, kind, marker);
    if (!missing.empty()) info["missing"] = missing;
    if (!changed.empty()) info["changed"] = changed;
}

/// What a rectified picture shows at a depth.
void add_view(Json& info, cv::Size size, double f, double baseline, double depth)
{
    info["baseline"] = baseline;
    info["depth"] = depth;
    info["field_of_view"] = { size.width * depth / f, size.height * depth / f };
    info["per_px"] = depth / f;
    info["depth_of_a_tenth_px"] = 0.1 * depth * depth / (f * baseline);
}

/// The depth, from camera 0, at which the optical axes come nearest to one another; 0 when they do not before them.
double depth_of_crossing(const std::array<CalibratedCamera, 2>& cameras)
{
    const cv::Matx33d R = cameras[1].R * cameras[0].R.t();
    const cv::Vec3d centre = -(R.t() * (cameras[1].T - R * cameras[0].T));
    const cv::Vec3d axis = R.t() * cv::Vec3d(0, 0, 1);
    // Of z e and centre + s axis: the z with the smallest distance over all s. e and axis have length 1.
    const double along = axis[2], denominator = 1.0 - along * along;
    if (!(denominator > 1e-6)) return 0.0;
    const double z = (centre[2] - along * centre.dot(axis)) / denominator;
    return z > 0.0 && std::isfinite(z) ? z : 0.0;
}

void add_cameras(const InfoRequest& o, Json& info)
{
    const std::string file = (fs::path(o.file) / "cameras.yaml").string();
    const CalibrationNotes notes = read_notes({ file });
    info["unit"] = notes.unit.name;
    info["unit_stated"] = notes.unit.stated;
    if (!notes.verdict.empty()) info["calibration_verdict"] = notes.verdict;
    if (has_camera(file, "cam0") && !has_camera(file, "cam1")) {
        add_share(info, direction_share_beside(file));
        return;
    }
    const auto cameras = read_cameras({ file });
    const Rectification r = rectify(cameras, cameras[0].size, -1.0, 0, cameras[0].size);
    add_accuracy({ r.P0(0, 0), r.baseline, notes.unit }, share_beside({ file }), o.depth, info);
    const double depth = o.depth ? 0.5 * (o.depth->first + o.depth->second) : depth_of_crossing(cameras);
    if (depth > 0.0)
        add_view(info, cameras[0].size, r.P0(0, 0), r.baseline, depth);
    else
        info["baseline"] = r.baseline;
}

void add_merged(const std::string& folder, Json& info)
{
    const Json report = read_json((fs::path(folder) / "report.json").string());
    for (const char* key : { "unit", "verdict", "points" })
        if (report.contains(key)) info[key] = report[key];
}

void add_result(const InfoRequest& o, Json& info)
{
    const Result result = read_result(o.file);
    const Json& report = result.report;
    for (const char* key : { "method", "unit", "unit_stated", "calibration_verdict", "verdict", "calibration_share_mm",
             "calibration_share_unknown" })
        if (report.contains(key)) info[key] = report[key];
    const Json::json_pointer middle("/depth/q50");
    const bool measured = report.contains(middle) && report[middle].is_number();
    const double depth = o.depth ? 0.5 * (o.depth->first + o.depth->second)
        : measured               ? report[middle].get<double>()
                                 : 0.0;
    info["points"] = result.cloud.size();
    if (depth > 0.0) add_view(info, result.size, result.f, result.baseline, depth);
    const Json::json_pointer sigma("/sigma/q50");
    if (!result.sigma.empty() && report.contains(sigma) && report[sigma].is_number())
        info["expected_sigma"] = report[sigma];
    else if (result.predicted_noise)
        info["expected_sigma"] = *result.predicted_noise;
}

void add_frames(const std::string& folder, Json& info)
{
    info["pictures"] = { find_frames((fs::path(folder) / "cam0").string()).size(),
        find_frames((fs::path(folder) / "cam1").string()).size() };
}

std::string listed(const Json& names)
{
    std::string text;
    for (const Json& name : names)
        text += (text.empty() ? "" : ", ") + name.get<std::string>();
    return text;
}

std::string whole_in_words(const Json& info)
{
    if (info["whole"].is_null()) return "not known: there is no list of its files";
    const std::string files
        = std::to_string(info["files"].get<int>()) + " files of vexo " + info["command"].get<std::string>();
    if (info["whole"] == true) return "yes, " + files + " as they were written";
    return "no, of " + files + (info.contains("missing") ? "; missing: " + listed(info["missing"]) : "")
        + (info.contains("changed") ? "; changed: " + listed(info["changed"]) : "");
}

} // namespace

std::vector<std::string> folder_lines(const Json& info)
{
    std::vector<std::string> lines;
    const auto add = [&lines](std::string what, const std::string& text) {
        what.resize(std::max<std::size_t>(what.size() + 1, 18), ' ');
        lines.push_back(what + text);
    };
    const std::string name = text_in(info, "unit", "");
    const Unit unit = name.empty() ? Unit {} : unit_named(name, "");
    const auto length = [&](const Json& value, int decimals) { return unit.length(value.get<double>(), decimals); };
    add("kind", info["kind"]);
    add("whole", whole_in_words(info));
    if (!name.empty()) add("unit", name + (info.value("unit_stated", false) ? "" : " (assumed: nothing says it)"));
    for (const auto& [key, what] :
        { std::pair("method", "method"), { "calibration_verdict", "calibration" }, { "verdict", "verdict" } })
        if (info.contains(key) && info[key].is_string()) add(what, info[key]);
    if (info.contains("calibration_share_mm")) add("  its share", in_words(read_share(info, "report.json")));
    if (info.contains("direction_share")) add("  its share", in_words(read_direction_share(info, "cameras.yaml")));
    if (const std::string expected = accuracy_in_words(info); !expected.empty())
        add("  to expect", expected + ": this share, and a usual scan's noise");
    if (info.contains("pictures")) add("pictures", info["pictures"][0].dump() + " and " + info["pictures"][1].dump());
    if (info.contains("points")) add("points", grouped(info["points"].get<long long>()));
    if (info.contains("baseline")) add("baseline", length(info["baseline"], 2));
    if (info.contains("depth")) {
        add("at depth", length(info["depth"], 1));
        add("  field of view",
            number(info["field_of_view"][0].get<double>(), unit.decimals(1)) + " x "
                + length(info["field_of_view"][1], 1));
        add("  a pixel is", length(info["per_px"], 4) + " wide");
        add("  0.1 px are", length(info["depth_of_a_tenth_px"], 4) + " of depth");
    }
    if (info.contains("expected_sigma")) add("expected sigma", length(info["expected_sigma"], 4) + " of depth");
    return lines;
}

Json describe_folder(const InfoRequest& o)
{
    const std::string kind = kind_of(o.file);
    Json info { { "kind", kind.empty() ? "what a run left that did not end" : kind } };
    add_wholeness(o.file, kind, info);
    if (kind.empty() && info["whole"].is_null())
        throw Failure(o.file + ": holds nothing that this program wrote, and no frames in cam0 and cam1");
    if (kind == "result of a measurement") add_result(o, info);
    if (kind == "several results, merged") add_merged(o.file, info);
    if (holds(o.file, "cam0") && holds(o.file, "cam1")) add_frames(o.file, info);
    if (holds(o.file, "cameras.yaml")) add_cameras(o, info);
    return info;
}

} // namespace vexo
