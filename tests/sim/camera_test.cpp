#include "sim/camera.h"
#include "sim/rig.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <random>

using namespace vexo::sim;

namespace {

/// Points of the rig frame that camera 0 sees, over the whole image and from 300 to 1500 mm.
std::vector<cv::Vec3d> points_in_view(const Camera& camera, int count)
{
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<cv::Vec3d> points;
    while (static_cast<int>(points.size()) < count) {
        const double z = 300 + 1200 * unit(rng);
        const cv::Vec3d p((unit(rng) - 0.5) * z, (unit(rng) - 0.5) * z, z);
        if (camera.sees(p)) points.push_back(p);
    }
    return points;
}

} // namespace

TEST(SimCamera, ProjectsAsOpenCVDoes)
{
    const Rig rig = make_rig({});
    for (const Camera& camera : rig.cameras) {
        const std::vector<cv::Vec3d> points = points_in_view(camera, 500);
        cv::Mat rvec;
        cv::Rodrigues(camera.R, rvec);
        std::vector<cv::Point3d> object(points.begin(), points.end());
        std::vector<cv::Point2d> theirs;
        cv::projectPoints(object, rvec, camera.T, camera.K, cv::Mat(camera.D, true), theirs);
        for (std::size_t i = 0; i < points.size(); ++i) {
            const cv::Vec2d ours = camera.project(points[i]);
            ASSERT_NEAR(ours[0], theirs[i].x, 1e-9) << points[i]; // rounding at 1000 px: 1e-13, times the steps
            ASSERT_NEAR(ours[1], theirs[i].y, 1e-9) << points[i];
        }
    }
}

TEST(SimCamera, RayOfAPixelProjectsBackOntoItAndTurnsAsItsDerivativeSays)
{
    const Rig rig = make_rig({});
    const Camera& camera = rig.cameras[0];
    for (int y = 0; y < 1024; y += 31)
        for (int x = 0; x < 1280; x += 31) {
            const PixelRay ray = camera.ray(cv::Vec2d(x, y));
            ASSERT_NEAR((camera.R * ray.direction)[2], 1, 1e-12);
            ASSERT_LT(cv::norm(camera.project(camera.centre() + 700 * ray.direction) - cv::Vec2d(x, y)), 1e-9);
            constexpr double h = 1e-3; // px; the second derivative leaves about 1e-10
            for (int i = 0; i < 2; ++i) {
                const cv::Vec2d moved(x + (i == 0 ? h : 0), y + (i == 1 ? h : 0));
                const cv::Vec3d turn = (camera.ray(moved).direction - ray.direction) * (1 / h);
                ASSERT_LT(cv::norm(turn - ray.per_pixel[static_cast<std::size_t>(i)]), 1e-8) << x << ' ' << y;
            }
        }
}
