#include "host/calibration/poses.h"

#include "base/pictures.h"
#include "base/text.h"
#include "host/calibration/camera_fit.h"

#include <opencv2/calib3d.hpp>

#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

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
    const BoardPicture& picture, const CalibratedCamera& camera, const BoardFile& board, const BoardPose& pose)
{
    cv::Mat drawing = decoded_drawing(picture);
    const auto length = static_cast<float>(3 * board.layout.pitch_mm);
    cv::drawFrameAxes(drawing, camera.K, camera.D, pose.rvec, pose.tvec, length, 3);
    return encode(".jpg", drawing);
}

PosedPicture pose_of(const BoardPicture& picture, const CalibratedCamera& camera, const BoardFile& board)
{
    PosedPicture posed { picture, {}, 0.0, picture.reason };
    if (!picture.recognised()) return posed;
    if (!camera.size.empty() && picture.size != camera.size) {
        posed.reason = "the picture is " + size_text(picture.size.width, picture.size.height)
            + ", the camera is calibrated for " + size_text(camera.size.width, camera.size.height);
        return posed;
    }
    posed.pose = solve_board_pose(seen_markers(picture, board), camera);
    posed.reason = posed.pose ? "" : "the markers determine no pose";
    if (!posed.pose) return posed;
    posed.tilt_deg = tilt_deg(posed.pose->rvec, posed.pose->tvec, board);
    posed.picture.drawing = with_axes(picture, camera, board, *posed.pose);
    return posed;
}

} // namespace

std::vector<PosedPicture> find_poses(const std::vector<std::string>& images, const CalibratedCamera& camera,
    const BoardFile& board, const OnStep& on_step)
{
    BoardViews views = as_views(images);
    recognise(views, board, on_step);
    std::vector<PosedPicture> all;
    for (const BoardPicture& picture : views.cameras[0])
        all.push_back(pose_of(picture, camera, board));
    return all;
}

Json to_json(const PosedPicture& posed)
{
    Json json { { "image", posed.picture.path }, { "code", posed.picture.code }, { "found", posed.picture.found } };
    if (!posed.pose) {
        json["reason"] = posed.reason;
        return json;
    }
    const cv::Matx44d m = posed.pose->matrix();
    Json rows = Json::array();
    for (int r = 0; r < 4; ++r)
        rows.push_back({ m(r, 0), m(r, 1), m(r, 2), m(r, 3) });
    json.update({ { "camera_from_board", rows }, { "position_mm", { m(0, 3), m(1, 3), m(2, 3) } },
        { "tilt_deg", posed.tilt_deg }, { "rms_px", posed.pose->rms_px } });
    return json;
}

} // namespace vexo
