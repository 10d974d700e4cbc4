#include "host/results/lit_frame.h"

#include "base/failure.h"
#include "base/pictures.h"
#include "host/cameras/calibration_files.h"
#include "host/files/marker.h"
#include "patterns/method.h"

#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

constexpr const char* otherwise = "; measure again where the frames now are, or give the poses with --poses";

/// One of the files that the report says were read, at the place that it names. Throws Failure where its bytes changed.
std::string unchanged(const Json& file, const fs::path& folder, const std::string& report)
{
    const std::string name = file.is_object() ? text_in(file, "file", "") : "";
    if (name.empty()) throw Failure(report + ": does not say which frames it was measured from" + otherwise);
    std::string path = (folder / name).string();
    const std::string hash = hash_of_file(path);
    if (hash.empty()) throw Failure(path + ": is not there any more" + otherwise);
    if (hash != text_in(file, "sha256", "")) throw Failure(path + ": was changed since " + report + otherwise);
    return path;
}

Json list_in(const Json& report, const char* pointer)
{
    const Json::json_pointer where(pointer);
    return report.contains(where) && report[where].is_array() ? report[where] : Json::array();
}

} // namespace

LitFrame lit_frame_of(const std::string& result_folder)
{
    constexpr std::size_t lit = 1; // after the dark one
    const std::string path = (fs::path(result_folder) / "report.json").string();
    const Json report = read_json(path);
    const auto method = method_named(text_in(report, "method", ""));
    const Json frames = list_in(report, "/made_from/cam0"), files = list_in(report, "/made_from/calibration"),
               places = list_in(report, "/input/calib");
    const Json::json_pointer folder("/input/cam0");
    if (!method || frames.size() != frame_count(*method) || frames.size() <= lit || !report.contains(folder)
        || !report[folder].is_string())
        throw Failure(path + ": was not measured from a whole set of frames of one folder, with a lit one" + otherwise);
    if (files.empty() || files.size() != places.size())
        throw Failure(path + ": does not say what the calibration held; measure again");
    LitFrame found;
    found.path = unchanged(frames[lit], report[folder].get<std::string>(), path);
    std::vector<std::string> cameras;
    for (std::size_t i = 0; i < files.size(); ++i)
        cameras.push_back(unchanged(
            files[i], fs::path(places[i].is_string() ? places[i].get<std::string>() : "").parent_path(), path));
    found.camera = read_cameras(find_calibration(cameras), read_grey(found.path).size())[0];
    return found;
}

} // namespace vexo
