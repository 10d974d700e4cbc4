#include "board_pictures.h"
#include "calibration_check.h"
#include "common.h"
#include "frames.h"
#include "pictures.h"
#include "report.h"
#include "rig.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <opencv2/calib3d.hpp>

#include <cfloat>
#include <cmath>
#include <filesystem>
#include <memory>

// The library has a pose solver of its own, but no factory for it. Linking vexo_core for it would put every class of
// the library into this process a second time, beside libvexo.so; the exported recogniser and cv::solvePnP do the
// same, and the program goes on seeing the public interface only.
namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct PoseOptions {
    std::vector<std::string> images;
    std::string calib, board, out;
    int camera = 0;
};

/// Where the board stands: x_camera = R x_board + t, raw camera axes (x right, y down, z forward), mm.
struct Pose {
    cv::Vec3d rvec, tvec;
    double rms = 0;  ///< px
    double tilt = 0; ///< degrees between the board's normal and the line of sight

    cv::Matx44d matrix() const
    {
        cv::Matx33d R;
        cv::Rodrigues(rvec, R);
        return { R(0, 0), R(0, 1), R(0, 2), tvec[0], R(1, 0), R(1, 1), R(1, 2), tvec[1], R(2, 0), R(2, 1), R(2, 2),
            tvec[2], 0, 0, 0, 1 };
    }
};

/// False when the markers determine no pose.
bool solve(const BoardPicture& picture, const CalibratedCamera& camera, const BoardFile& board, Pose& pose)
{
    constexpr std::size_t fewest = 4;
    std::vector<cv::Point3f> on_board;
    std::vector<cv::Point2f> seen, projected;
    for (std::size_t k = 0; k < picture.markers.size(); ++k) {
        if (picture.markers[k].x == FLT_MAX) continue;
        on_board.push_back(board_point(board, k));
        seen.push_back(picture.markers[k]);
    }
    if (seen.size() < fewest) return false;
    try {
        if (!cv::solvePnP(on_board, seen, camera.K, camera.D, pose.rvec, pose.tvec)) return false;
        cv::projectPoints(on_board, pose.rvec, pose.tvec, camera.K, camera.D, projected);
    } catch (const cv::Exception&) {
        return false; // markers in a line, say
    }
    pose.rms = cv::norm(seen, projected) / std::sqrt(static_cast<double>(seen.size()));
    pose.tilt = tilt_deg(pose.rvec, pose.tvec, board);
    return std::isfinite(pose.rms);
}

BoardViews as_views(const std::vector<std::string>& images)
{
    BoardViews views { { {} } };
    for (const std::string& image : images) {
        BoardPicture picture;
        picture.path = image;
        picture.name = fs::path(image).filename().string();
        views.cameras[0].push_back(picture);
    }
    return views;
}

std::vector<unsigned char> with_axes(
    const BoardPicture& picture, const CalibratedCamera& camera, const BoardFile& board, const Pose& pose)
{
    cv::Mat drawing = decoded_drawing(picture);
    const auto length = static_cast<float>(3 * board.layout.pitch_mm);
    cv::drawFrameAxes(drawing, camera.K, camera.D, pose.rvec, pose.tvec, length, 3);
    return encode(".jpg", drawing);
}

Json to_json(const Pose& pose)
{
    const cv::Matx44d m = pose.matrix();
    Json rows = Json::array();
    for (int r = 0; r < 4; ++r)
        rows.push_back({ m(r, 0), m(r, 1), m(r, 2), m(r, 3) });
    return { { "camera_from_board", rows }, { "position_mm", { m(0, 3), m(1, 3), m(2, 3) } }, { "tilt_deg", pose.tilt },
        { "rms_px", pose.rms } };
}

std::string describe(const Pose& pose)
{
    return "O marker at " + number(pose.tvec[0], 2) + ", " + number(pose.tvec[1], 2) + ", " + number(pose.tvec[2], 2)
        + " mm, tilted by " + number(pose.tilt, 1) + " degrees, rms " + number(pose.rms, 3) + " px";
}

void find_poses(const PoseOptions& o, const GlobalOptions& options)
{
    const BoardFile board = load_board(o.board);
    const CalibratedCamera camera = read_camera(o.calib, "cam" + std::to_string(o.camera));
    std::unique_ptr<OutputFolder> out;
    if (!o.out.empty()) out = std::make_unique<OutputFolder>(o.out);

    Progress progress(options, static_cast<int>(o.images.size()));
    BoardViews views = as_views(o.images);
    recognise(views, board, [&progress](const std::string& name) { progress.step(name); });
    progress.finish();

    Json json = Json::array();
    int solved = 0;
    for (BoardPicture& picture : views.cameras[0]) {
        Pose pose;
        const bool fits = camera.size.empty() || picture.size == camera.size;
        const bool found = picture.recognised() && fits && solve(picture, camera, board, pose);
        const std::string reason = !picture.recognised() ? picture.reason
            : !fits ? "the picture is " + std::to_string(picture.size.width) + " x "
                + std::to_string(picture.size.height) + ", the camera is calibrated for "
                + std::to_string(camera.size.width) + " x " + std::to_string(camera.size.height)
                    : "the markers determine no pose";
        solved += found ? 1 : 0;
        Json entry { { "image", picture.path }, { "code", picture.code }, { "found", picture.found } };
        if (found)
            entry.update(to_json(pose));
        else
            entry["reason"] = reason;
        json.push_back(entry);
        if (found) picture.drawing = with_axes(picture, camera, board, pose);
        if (out)
            out->add(std::to_string(json.size() - 1) + "_" + fs::path(picture.name).stem().string() + ".jpg",
                picture.drawing);
        say(options, picture.path + ": " + (found ? describe(pose) : reason));
    }
    if (out) {
        out->add("poses.json", json_text(json));
        out->commit();
    }
    put_json(options, json);
    if (solved == 0) throw Failure("no pose: " + o.images[0] + ": " + json[0]["reason"].get<std::string>());
}

} // namespace

void add_pose(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<PoseOptions>();
    CLI::App* command
        = app.add_subcommand("pose", "pictures of the board and a calibrated camera -> where the board stands");
    command->add_option("images", o->images, "pictures of the board")->required();
    command->add_option("--calib", o->calib, "camera file, such as cameras.yaml of vexo calibrate")->required();
    command->add_option("--board", o->board, "board.yaml")->required();
    command->add_option("--camera", o->camera, "which camera of the file took the pictures: 0 or 1")
        ->check(CLI::Range(0, 1))
        ->capture_default_str();
    command->add_option("--out", o->out, "folder for poses.json and drawings with the board's axes (default: none)");
    finish_command(*command, options,
        "vexo pose view07.png --calib calib/cameras.yaml --board calib/board.yaml\n  prints where the O marker is in "
        "the "
        "camera's axes; --json gives the 4x4 matrix board -> camera",
        [o, &options] { find_poses(*o, options); });
}

} // namespace vexo::app
