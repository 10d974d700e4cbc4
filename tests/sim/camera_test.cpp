#include "sim/camera.h"
#include "base/plain_yaml.h"
#include "sim/capture.h"

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

TEST(SimCamera, FilesArePlainYamlWithCameraZeroAsTheWorld)
{
    const Rig rig = make_rig({});
    const std::string text = cameras_yaml(rig);
    ASSERT_TRUE(vexo::yaml_is_plain(text));
    const cv::FileStorage storage(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    cv::Mat_<double> R0, T0, K1, R1, T1, P1, D1;
    storage["cam0_R"] >> R0;
    storage["cam0_T"] >> T0;
    storage["cam1_K"] >> K1;
    storage["cam1_R"] >> R1;
    storage["cam1_T"] >> T1;
    storage["cam1_P"] >> P1;
    storage["cam1_D"] >> D1;
    EXPECT_EQ(static_cast<int>(storage["cam1_size"][1]), 1024);
    EXPECT_EQ(cv::norm(R0, cv::Mat::eye(3, 3, CV_64F)) + cv::norm(T0), 0);
    EXPECT_NEAR(cv::norm(T1), rig.options.baseline_mm, 1e-9);
    EXPECT_LT(T1(0), 0); // camera 1 stands to the right
    ASSERT_EQ(D1.size(), cv::Size(5, 1));
    // A point projects the same through the rig and through the file.
    const cv::Vec3d point(20, -30, 650);
    const cv::Mat_<double> in_cam0(rig.cameras[0].to_camera(point));
    std::vector<cv::Point2d> pixel;
    cv::Mat rvec;
    cv::Rodrigues(R1, rvec);
    cv::projectPoints(in_cam0.reshape(3, 1), rvec, T1, K1, D1, pixel);
    EXPECT_LT(cv::norm(cv::Vec2d(pixel[0].x, pixel[0].y) - rig.cameras[1].project(point)), 1e-8);
    cv::Mat_<double> RT;
    cv::hconcat(R1, T1, RT);
    EXPECT_LT(cv::norm(P1, K1 * RT), 1e-9);
}

/// The disparities that the matchers accept by default are -300 to 400 px.
TEST(SimCamera, DefaultRigRectifiedHasItsSceneWithinTheDefaultDisparities)
{
    const Rig rig = make_rig({});
    const Camera &c0 = rig.cameras[0], &c1 = rig.cameras[1];
    const cv::Matx33d R = c1.R * c0.R.t();
    const cv::Vec3d T = c1.T - R * c0.T;
    cv::Mat R0, R1;
    cv::Mat_<double> P0, P1, Q;
    cv::stereoRectify(c0.K, cv::Mat(c0.D, true), c1.K, cv::Mat(c1.D, true), c0.size, R, T, R0, R1, P0, P1, Q, 0);
    for (const double z : { 350.0, 500.0, 600.0, 800.0, 1200.0 }) {
        const double d = P0(0, 0) * rig.options.baseline_mm / z + P0(0, 2) - P1(0, 2);
        EXPECT_GT(d, -300) << z;
        EXPECT_LT(d, 400) << z;
    }
}
