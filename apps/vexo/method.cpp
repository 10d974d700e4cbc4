#include "method.h"

#include "common.h"
#include "frames.h"
#include "report.h"

#include <cmath>
#include <filesystem>
#include <optional>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct Facts {
    const char* name;
    std::size_t frames;
    std::vector<std::size_t> phase_sets;
};

const Facts& facts_of(Method method)
{
    static const Facts facts[]
        = { { "sgbm", 1, {} }, { "gray-phase", 13, { 9 } }, { "multi-phase", 14, { 2, 6, 10 } } };
    return facts[static_cast<std::size_t>(method)];
}

constexpr Method methods[] = { Method::sgbm, Method::gray_phase, Method::multi_phase };
constexpr const char* descriptions[] = { "scene.json", "patterns.json" };

/// A description of the capture, if there is a readable one; what it lacks is found out in other ways.
std::optional<Json> description(const std::string& folder, const char* file)
{
    std::error_code ignored;
    const fs::path path = fs::path(folder) / file;
    if (folder.empty() || !fs::is_regular_file(path, ignored)) return std::nullopt;
    try {
        return read_json(path.string());
    } catch (const Failure&) {
        return std::nullopt;
    }
}

std::optional<Method> method_named(const std::string& name)
{
    for (const Method method : methods)
        if (name == name_of(method)) return method;
    return std::nullopt;
}

Choice method_by_count(const std::string& cam0)
{
    const std::size_t count = find_frames(cam0).size();
    for (const Method method : methods)
        if (count == frame_count(method))
            return { method, std::to_string(count) + (count == 1 ? " picture" : " pictures") + " of each camera" };
    if (count == 0) throw Failure(cam0 + ": no pictures found");
    throw Failure(cam0 + ": " + std::to_string(count)
        + " pictures fit no method (sgbm 1, gray-phase 13, multi-phase 14); name it with --method");
}

} // namespace

const char* name_of(Method method)
{
    return facts_of(method).name;
}

std::size_t frame_count(Method method)
{
    return facts_of(method).frames;
}

std::vector<std::size_t> phase_sets(Method method)
{
    return facts_of(method).phase_sets;
}

Choice choose_method(const std::string& named, const std::string& folder, const std::string& cam0, bool decoded)
{
    if (const auto method = method_named(named)) return { *method, "--method" };
    if (decoded) {
        std::error_code ignored;
        const bool several = fs::exists(fs::path(cam0) / "phase0.tiff", ignored);
        return { several ? Method::multi_phase : Method::gray_phase, several ? "phase0.tiff" : "decoded maps" };
    }
    for (const char* file : descriptions) {
        const auto json = description(folder, file);
        if (!json || !json->contains("method") || !json->at("method").is_string()) continue;
        if (const auto method = method_named(json->at("method").get<std::string>())) return { *method, file };
    }
    return method_by_count(cam0);
}

std::vector<int> periods_told_in(const std::string& folder)
{
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

LightLimits light_limits(const MatchingRecord& record)
{
    const auto of = [](const auto& p) { return LightLimits { p.min_contrast, p.max_white, p.min_white }; };
    if (const auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) return of(*gray);
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return of(*multi);
    return {};
}

std::pair<double, double> disparity_limits(const MatchingRecord& record)
{
    if (const auto* gray = std::get_if<GrayPhaseMatchingParam>(&record))
        return { gray->min_disparity, gray->max_disparity };
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record))
        return { multi->min_disparity, multi->max_disparity };
    const auto& sgbm = std::get<SGBMatchingParam>(record);
    return { sgbm.minDisparity, sgbm.minDisparity + sgbm.numDisparities - 1 };
}

void set_disparity_limits(MatchingRecord& record, double low, double high)
{
    const auto set = [&](auto& p) {
        p.min_disparity = low;
        p.max_disparity = high;
    };
    if (auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) return set(*gray);
    if (auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return set(*multi);
    // Block matching wants a count that is a multiple of 16; OpenCV holds sixteenths in 16 bits.
    constexpr int step = 16, lowest = -2032, highest = 2032;
    const int first = step * static_cast<int>(std::floor(low / step));
    const int end = step * (static_cast<int>(std::floor(high / step)) + 1);
    if (first < lowest || end > highest)
        throw Failure("disparities from " + number(low, 0) + " to " + number(high, 0)
            + " px are more than block matching can hold (" + std::to_string(lowest) + " to " + std::to_string(highest)
            + "); use a smaller --depth or --disparity range");
    auto& sgbm = std::get<SGBMatchingParam>(record);
    sgbm.minDisparity = first;
    sgbm.numDisparities = end - first;
}

bool is_decoded(const MatchingRecord& record)
{
    if (const auto* gray = std::get_if<GrayPhaseMatchingParam>(&record)) return gray->datatype == 1;
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record)) return multi->datatype == 1;
    return false;
}

} // namespace vexo::app
