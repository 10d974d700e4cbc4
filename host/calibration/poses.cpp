#include "host/calibration/poses.h"

#include "base/pictures.h"
#include "base/text.h"
#include "host/calibration/camera_fit.h"
#include "host/calibration/refine_views.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cfloat>
#include <cmath>
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

/// By the normal equations of the reprojection: C = f (sum J^T J / sigma^2)^-1, J the derivatives of a marker's pixel
/// by the pose. f is what the residuals exceed the markers' own sigmas by: the cameras have errors, too. Markers
/// without a sigma weigh alike, and the residuals alone say how much.
std::optional<cv::Matx66d> covariance_of(
    const BoardPicture& picture, const CalibratedCamera& camera, const BoardFile& board, const BoardPose& pose)
{
    const SeenMarkers seen = seen_markers(picture, board);
    std::vector<cv::Point2f> projected;
    cv::Mat jacobian; // 2 n x 15 or more: by the rotation and the translation first
    cv::projectPoints(seen.board_mm, pose.rvec, pose.tvec, camera.K, camera.D, projected, jacobian);
    cv::Matx66d normal = cv::Matx66d::zeros();
    double squares = 0.0, count = 0.0;
    std::size_t next = 0;
    for (std::size_t i = 0; i < picture.markers.size(); ++i) {
        if (picture.markers[i].x == FLT_MAX) continue;
        const std::size_t k = next++;
        const double weight = picture.sigma.empty() ? 1.0 : 1.0 / (picture.sigma[i] * picture.sigma[i]);
        const int row = 2 * static_cast<int>(k);
        const cv::Mat of_pose = jacobian(cv::Rect(0, row, 6, 2));
        normal += cv::Matx66d(cv::Mat(weight * of_pose.t() * of_pose));
        const cv::Point2f off = seen.image_px[k] - projected[k];
        squares += weight * off.dot(off);
        count += 2.0;
    }
    bool regular = false;
    const cv::Matx66d inverse = normal.inv(cv::DECOMP_CHOLESKY, &regular);
    if (!regular || count <= 6.0) return std::nullopt;
    const double factor = squares / (count - 6.0);
    return inverse * (picture.sigma.empty() ? factor : std::max(1.0, factor));
}

PosedPicture pose_of(const BoardPicture& picture, const CalibratedCamera& camera, const BoardFile& board)
{
    PosedPicture posed { picture, {}, {}, {}, 0.0, picture.reason };
    if (!picture.recognised()) return posed;
    if (!camera.size.empty() && picture.size != camera.size) {
        posed.reason = "the picture is " + size_text(picture.size.width, picture.size.height)
            + ", the camera is calibrated for " + size_text(camera.size.width, camera.size.height);
        return posed;
    }
    posed.pose = solve_board_pose(seen_markers(picture, board), camera);
    posed.reason = posed.pose ? "" : "the markers determine no pose";
    if (!posed.pose) return posed;
    posed.covariance = covariance_of(picture, camera, board, *posed.pose);
    if (posed.covariance && !picture.sigma.empty()) {
        const cv::Matx66d& c = *posed.covariance;
        posed.position_sigma_mm = cv::Vec3d(std::sqrt(c(3, 3)), std::sqrt(c(4, 4)), std::sqrt(c(5, 5)));
    }
    posed.tilt_deg = tilt_deg(posed.pose->rvec, posed.pose->tvec, board);
    posed.picture.drawing = with_axes(picture, camera, board, *posed.pose);
    return posed;
}

} // namespace

std::vector<PosedPicture> find_poses(const std::vector<std::string>& images, const CalibratedCamera& camera,
    const BoardFile& board, const OnStep& on_step)
{
    BoardViews views = as_views(images);
    if (images.empty()) return {};
    recognise(views, board, on_step);
    CalibratedCamera sized = camera;
    if (sized.size.empty()) sized.size = views.cameras[0].front().size; // files of others may not say it
    std::vector<bool> used(views.count(), true);
    refine_views(views, used, board, { sized });
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
        { "tilt_deg", posed.tilt_deg }, { "rms_px", posed.pose->rms_px },
        { "recognised_by", name_of(posed.picture.step) }, { "refined", !posed.picture.sigma.empty() } });
    if (posed.position_sigma_mm) {
        const cv::Vec3d& sigma = *posed.position_sigma_mm;
        json["position_sigma_mm"] = { sigma[0], sigma[1], sigma[2] };
    }
    return json;
}

} // namespace vexo
