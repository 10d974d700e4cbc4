#include "host/results/frame.h"

#include "base/failure.h"
#include "host/cameras/calibration_files.h"
#include "host/cameras/rectification.h"
#include "host/cameras/rigid_file.h"
#include "host/files/marker.h"

#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

constexpr const char* name_the_right_one = "; name the folder of the calibration that was measured with: --calib DIR";

/// The name of a frame's file, as a line of a file's header can hold it.
std::string words_for(const std::string& what, const std::string& path)
{
    std::string words = what + fs::path(path).filename().string();
    for (char& c : words)
        if (static_cast<unsigned char>(c) < ' ') c = '_';
    return words;
}

/// The folder that the report names.
std::string folder_in(const Result& r)
{
    const Json::json_pointer first("/input/calib/0");
    if (!r.report.contains(first) || !r.report[first].is_string())
        throw Failure(r.report_path + ": names no calibration" + name_the_right_one);
    return fs::path(r.report[first].get<std::string>()).parent_path().string();
}

/// Throws Failure unless the folder holds the very files that were measured with.
void refuse_other_files(const Result& r, const std::string& folder)
{
    const Json::json_pointer calibration("/made_from/calibration");
    if (!r.report.contains(calibration) || !r.report[calibration].is_array() || r.report[calibration].empty())
        throw Failure(r.report_path + ": does not say what the calibration held; measure again");
    for (const Json& file : r.report[calibration]) {
        const std::string name = file.is_object() ? text_in(file, "file", "") : "";
        const std::string hash = file.is_object() ? text_in(file, "sha256", "") : "";
        if (name.empty() || hash.empty() || fs::path(name).filename() != fs::path(name))
            throw Failure(r.report_path + ": does not say what the calibration held; measure again");
        const std::string path = (fs::path(folder) / name).string(), found = hash_of_file(path);
        if (found.empty()) throw Failure(path + ": is not there" + name_the_right_one);
        if (found != hash)
            throw Failure(path + ": is another calibration than that of " + r.report_path + name_the_right_one);
    }
}

/// Throws Failure unless the folder's cameras are rectified as the result says: the board's pose is in these axes.
void refuse_other_rotation(const Result& r, const std::string& folder)
{
    constexpr double tolerance = 1e-9; // of one and the same computation
    const auto get = [&r](const std::string& key) { return number_in(r.report, "/camera/" + key, r.report_path); };
    if (!r.raw_from_rectified)
        throw Failure(r.report_path
            + ": says no rectifying rotation, so the board's axes cannot be reached; measure "
              "with the calibration's cameras.yaml");
    const cv::Size input(static_cast<int>(get("input_size/0")), static_cast<int>(get("input_size/1")));
    const auto cameras = read_cameras(find_calibration({ folder }), input);
    const Rectification own = rectify(cameras, input, get("alpha"), static_cast<int>(get("flags")), r.size);
    if (!(cv::norm(own.rotation0 - r.raw_from_rectified->t(), cv::NORM_INF) <= tolerance))
        throw Failure(folder + ": rectifies otherwise than " + r.report_path + " says; measure again with it");
}

} // namespace

Frame frame_of_board(const Result& result, const std::string& calibration)
{
    const std::string folder = calibration.empty() ? folder_in(result) : calibration;
    refuse_other_files(result, folder);
    const std::string pose = (fs::path(folder) / "boardRT.yaml").string();
    std::error_code ignored;
    if (!fs::exists(pose, ignored))
        throw Failure(pose + ": is not there; calibrate with vexo calibrate, which writes it, or use --frame FILE");
    if (was_changed(folder, "boardRT.yaml"))
        throw Failure(pose + ": was changed since vexo calibrate wrote it; if that is meant, use --frame FILE");
    refuse_other_rotation(result, folder);
    return { inverse_of_rigid(read_rigid(pose)), words_for("calibration board, ", pose) };
}

Frame frame_of_file(const std::string& path)
{
    return { inverse_of_rigid(read_rigid(path)), words_for("", path) };
}

} // namespace vexo
