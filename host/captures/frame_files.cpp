#include "host/captures/frame_files.h"

#include "base/failure.h"
#include "host/captures/find_frames.h"
#include "host/captures/manifest.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

/// The first of frame00, frame01, ... that a numbered set lacks; "" when the names are not of that kind.
std::string missing_frame(const std::vector<std::string>& paths, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = std::string(i < 10 ? "frame0" : "frame") + std::to_string(i);
        const auto has_name = [&name](const std::string& path) { return fs::path(path).stem() == name; };
        if (std::any_of(paths.begin(), paths.end(), has_name)) continue;
        const bool numbered = std::any_of(paths.begin(), paths.end(),
            [](const std::string& path) { return fs::path(path).stem().string().rfind("frame", 0) == 0; });
        return numbered ? name : "";
    }
    return "";
}

void check_count_of(const std::string& where, const std::vector<std::string>& paths, std::size_t count)
{
    if (paths.size() == count) return;
    const std::string missing = paths.size() < count ? missing_frame(paths, count) : "";
    const std::string need
        = "; the method needs " + std::to_string(count) + (count == 1 ? "" : " (dark, lit, patterns)");
    if (paths.empty()) throw Failure(where + ": no pictures found" + need);
    throw Failure(where + ": " + std::to_string(paths.size()) + " pictures found"
        + (missing.empty() ? "" : ", " + missing + " is missing") + need);
}

/// The recorded files in the order that --order gives.
std::vector<std::string> ordered(const std::string& where, const std::vector<int>& order)
{
    const std::vector<std::string> recorded = find_frames(where);
    std::vector<std::string> paths;
    for (const int index : order) {
        if (index >= static_cast<int>(recorded.size()))
            throw Failure("--order " + std::to_string(index) + ": " + where + " has pictures 0 to "
                + std::to_string(static_cast<int>(recorded.size()) - 1) + " only");
        paths.push_back(index < 0 ? "" : recorded[static_cast<std::size_t>(index)]);
    }
    return paths;
}

bool lie_in_the_folder(const CaptureFiles& files)
{
    return files.cam0 == (fs::path(files.folder) / "cam0").string()
        && files.cam1 == (fs::path(files.folder) / "cam1").string();
}

} // namespace

FrameFiles find_frame_files(const CaptureFiles& files, Method method)
{
    const std::optional<Manifest> manifest = manifest_of_capture(files.folder);
    FrameFiles found;
    found.inverted_code = manifest && manifest->inverted_code && method == Method::gray_phase;
    found.bits = files.bits ? files.bits : manifest ? manifest->bits : std::nullopt;
    found.bits_by = files.bits ? "--bits" : manifest ? manifest->path : "";
    const bool by_manifest = files.order.empty() && manifest && manifest->names_frames();
    if (by_manifest && !lie_in_the_folder(files))
        throw UsageFailure(
            manifest->path + " names the frames; leave --cam0 and --cam1 out, or take its key frames out");
    found.order_by = !files.order.empty() ? "--order" : by_manifest ? manifest_name : "";
    if (by_manifest) found.paths = manifest->frames;
    for (std::size_t c = 0; c < 2 && !by_manifest; ++c) {
        const std::string& where = c == 0 ? files.cam0 : files.cam1;
        found.paths[c] = files.order.empty() ? find_frames(where) : ordered(where, files.order);
    }
    return found;
}

void check_count(const CaptureFiles& files, const FrameFiles& found, std::size_t count)
{
    for (std::size_t c = 0; c < 2; ++c) {
        if (found.order_by.empty()) check_count_of(c == 0 ? files.cam0 : files.cam1, found.paths[c], count);
        if (found.paths[c].size() != count)
            throw Failure(found.order_by + ": names " + std::to_string(found.paths[c].size())
                + " frames; the method has " + std::to_string(count));
    }
}

std::vector<std::string> all_pictures(const CaptureFiles& files)
{
    std::vector<std::string> pictures;
    for (const std::string& where : { files.cam0, files.cam1 })
        for (const std::string& path : find_frames(where))
            pictures.push_back(path);
    if (const std::optional<Manifest> manifest = read_manifest(files.folder))
        for (const std::vector<std::string>& paths : manifest->frames)
            std::copy_if(paths.begin(), paths.end(), std::back_inserter(pictures),
                [](const std::string& path) { return !path.empty(); });
    return pictures;
}

} // namespace vexo
