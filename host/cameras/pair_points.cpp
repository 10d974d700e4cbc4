#include "host/cameras/pair_points.h"

#include "host/cameras/rectification.h"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace vexo {

std::vector<cv::Point2d> evenly_over(cv::Size picture, cv::Size grid)
{
    std::vector<cv::Point2d> pixels;
    pixels.reserve(static_cast<std::size_t>(grid.area()));
    for (int y = 0; y < grid.height; ++y)
        for (int x = 0; x < grid.width; ++x)
            pixels.emplace_back(
                (x + 0.5) * picture.width / grid.width - 0.5, (y + 0.5) * picture.height / grid.height - 0.5);
    return pixels;
}

CommonPixels in_common(
    const std::vector<CalibratedCamera>& pair, const std::vector<cv::Point2d>& of_camera0, double depth)
{
    CommonPixels common;
    if (of_camera0.empty()) return common;
    std::vector<cv::Point2d> rays, seen;
    cv::undistortPoints(of_camera0, rays, pair[0].K, pair[0].D);
    std::vector<cv::Point3d> points;
    points.reserve(rays.size());
    for (const cv::Point2d& ray : rays)
        points.emplace_back(ray.x * depth, ray.y * depth, depth);
    const cv::Matx33d R = pair[1].R * pair[0].R.t();
    cv::Vec3d turn;
    cv::Rodrigues(R, turn);
    cv::projectPoints(points, turn, pair[1].T - R * pair[0].T, pair[1].K, pair[1].D, seen);
    const cv::Rect2d picture({ 0.0, 0.0 }, cv::Size2d(pair[1].size));
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (!picture.contains(seen[i])) continue;
        common.of[0].push_back(of_camera0[i]);
        common.of[1].push_back(seen[i]);
    }
    return common;
}

std::vector<cv::Vec3d> triangulate(const std::vector<CalibratedCamera>& pair, const CommonPixels& pixels)
{
    const Rectification r = rectify({ pair[0], pair[1] }, pair[0].size, -1.0, 0, pair[0].size);
    std::array<std::vector<cv::Point2d>, 2> rays;
    cv::undistortPoints(pixels.of[0], rays[0], pair[0].K, pair[0].D, r.rotation0);
    cv::undistortPoints(pixels.of[1], rays[1], pair[1].K, pair[1].D, r.rotation1);
    const double along_x = r.P1(0, 3) / r.P1(0, 0), along_y = r.P1(1, 3) / r.P1(1, 1); // where camera 1 has the origin
    const bool vertical = std::abs(along_y) > std::abs(along_x);
    std::vector<cv::Vec3d> points;
    for (std::size_t i = 0; i < rays[0].size(); ++i) {
        const cv::Point2d ray = rays[0][i], apart = rays[1][i] - ray;
        const double depth = vertical ? along_y / apart.y : along_x / apart.x;
        points.push_back(r.rotation0.t() * (depth * cv::Vec3d(ray.x, ray.y, 1.0)));
    }
    return points;
}

} // namespace vexo
