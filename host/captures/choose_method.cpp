#include "host/captures/choose_method.h"

#include "base/failure.h"
#include "base/whole_file.h"
#include "host/captures/find_frames.h"
#include "host/captures/manifest.h"
#include "host/files/json_file.h"

#include <filesystem>
#include <optional>

namespace vexo {

namespace fs = std::filesystem;

namespace {

constexpr const char* descriptions[] = { "scene.json", "patterns.json" };

/// A description of the capture, if there is a readable one; what it lacks is found out in other ways.
std::optional<Json> description(const std::string& folder, const char* file)
{
    constexpr std::size_t largest = std::size_t { 1 } << 24;
    std::string text;
    if (folder.empty() || !read_file((fs::path(folder) / file).string(), largest, text)) return std::nullopt;
    return parse_json(text);
}

Choice method_by_count(const std::string& cam0, std::size_t count, bool nearest)
{
    for (const Method method : all_methods)
        if (count == frame_count(method))
            return { method, std::to_string(count) + (count == 1 ? " picture" : " pictures") + " of each camera" };
    if (count == 0) throw Failure(cam0 + ": no pictures found");
    if (nearest)
        return { count > frame_count(Method::multi_phase) ? Method::multi_phase : Method::gray_phase,
            std::to_string(count) + " pictures" };
    throw Failure(cam0 + ": " + std::to_string(count)
        + " pictures fit no method (sgbm 1, gray-phase 13, multi-phase 14); name it with --method");
}

} // namespace

Choice choose_method(const CaptureFiles& files, bool nearest)
{
    if (const auto method = method_named(files.method)) return { *method, "--method" };
    if (files.decoded) {
        std::error_code ignored;
        const bool several = fs::exists(fs::path(files.cam0) / "phase0.tiff", ignored);
        return { several ? Method::multi_phase : Method::gray_phase, several ? "phase0.tiff" : "decoded maps" };
    }
    const std::optional<Manifest> manifest = manifest_of_capture(files.folder);
    if (manifest && manifest->method) return { *manifest->method, manifest_name };
    for (const char* file : descriptions) {
        const auto json = description(files.folder, file);
        if (!json || !json->contains("method") || !json->at("method").is_string()) continue;
        if (const auto method = method_named(json->at("method").get<std::string>())) return { *method, file };
    }
    if (!files.order.empty()) return method_by_count("--order", files.order.size(), nearest);
    if (manifest && manifest->names_frames())
        return method_by_count(manifest->path, manifest->frames[0].size(), nearest);
    return method_by_count(files.cam0, find_frames(files.cam0).size(), nearest);
}

std::vector<int> periods_said_in(const std::string& folder)
{
    const std::optional<Manifest> manifest = read_manifest(folder);
    if (manifest && !manifest->periods.empty()) return manifest->periods;
    for (const char* file : descriptions) {
        const auto json = description(folder, file);
        if (!json || !json->contains("periods") || !json->at("periods").is_array()) continue;
        std::vector<int> periods;
        for (const Json& period : json->at("periods"))
            if (period.is_number_integer() && period >= 2 && period <= 100000) periods.push_back(period.get<int>());
        if (periods.size() == json->at("periods").size()) return periods;
    }
    return {};
}

} // namespace vexo
