#include "host/accuracy/truth.h"

#include "base/failure.h"
#include "base/pictures.h"
#include "host/cameras/calibration_notes.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

cv::Mat read_map(const std::string& path, int type)
{
    cv::Mat map = read_picture(path, PictureAs::stored);
    if (map.type() != type) throw Failure(path + ": is not a map of a simulated capture; run vexo simulate again");
    return map;
}

} // namespace

Truth read_truth(const std::string& folder)
{
    const fs::path scan(folder);
    std::error_code ignored;
    if (!fs::exists(scan / "truth.tiff", ignored))
        throw Failure(folder + ": has no truth.tiff; only a capture of vexo simulate can be compared with");
    Truth t;
    const auto cameras = read_cameras({ (scan / "cameras.yaml").string() });
    t.camera0 = cameras[0];
    t.camera1 = cameras[1];
    const double in_mm = read_notes({ (scan / "cameras.yaml").string() }).unit.in_mm;
    t.camera0.T *= in_mm;
    t.camera1.T *= in_mm;
    t.depth = read_map((scan / "truth.tiff").string(), CV_32FC1);
    t.visible = read_map((scan / "visible.png").string(), CV_8UC1);
    t.visible1 = read_map((scan / "visible1.png").string(), CV_8UC1);
    t.scene_path = (scan / "scene.json").string();
    t.scene = read_json(t.scene_path);
    if (text_in(t.scene, "scene", "").empty())
        throw Failure(t.scene_path + ": names no scene; run vexo simulate again");
    if (t.depth.size() != t.visible.size() || t.depth.size() != t.camera0.size || t.visible1.size() != t.camera1.size)
        throw Failure(folder + ": truth.tiff, visible*.png and cameras.yaml differ in size; run vexo simulate again");
    return t;
}

std::vector<cv::Point2d> project(
    const std::vector<cv::Point3d>& points, const CalibratedCamera& camera, const cv::Matx33d& R, const cv::Vec3d& T)
{
    std::vector<cv::Point2d> pixels;
    cv::Vec3d turn;
    cv::Rodrigues(R, turn);
    if (!points.empty()) cv::projectPoints(points, turn, T, cv::Mat(camera.K), camera.D, pixels);
    return pixels;
}

double depth_at(const cv::Mat& depth, const cv::Point2d& pixel)
{
    constexpr double one_surface = 0.01; // neighbours on a surface differ by less than this share of the depth
    if (!(pixel.x > -0.5 && pixel.y > -0.5 && pixel.x < depth.cols - 0.5 && pixel.y < depth.rows - 0.5))
        return std::nan("");
    const int x = std::clamp(static_cast<int>(std::floor(pixel.x)), 0, depth.cols - 2);
    const int y = std::clamp(static_cast<int>(std::floor(pixel.y)), 0, depth.rows - 2);
    const auto at = [&](int dy, int dx) { return static_cast<double>(depth.at<float>(y + dy, x + dx)); };
    const auto [low, high] = std::minmax({ at(0, 0), at(0, 1), at(1, 0), at(1, 1) });
    const bool all = std::isfinite(at(0, 0) + at(0, 1) + at(1, 0) + at(1, 1));
    const double u = pixel.x - x, v = pixel.y - y;
    if (!all || high - low > one_surface * high) return at(v < 0.5 ? 0 : 1, u < 0.5 ? 0 : 1);
    return (1 - v) * ((1 - u) * at(0, 0) + u * at(0, 1)) + v * ((1 - u) * at(1, 0) + u * at(1, 1));
}

} // namespace vexo
