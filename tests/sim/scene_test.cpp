#include "sim/render.h"
#include "sim/scene.h"
#include "sim/scenes.h"

#include <gtest/gtest.h>

#include <random>

using namespace vexo::sim;

namespace {

RigOptions small_rig()
{
    RigOptions options;
    options.image_size = { 320, 256 };
    options.noise = 0;
    return options;
}

cv::Vec3d random_point(std::mt19937& rng, const double* low, const double* high)
{
    cv::Vec3d p;
    for (int i = 0; i < 3; ++i)
        p[i] = std::uniform_real_distribution<double>(low[i], high[i])(rng);
    return p;
}

/// Rig point at the depth that a camera's picture of depths tells for a pixel.
cv::Vec3d point_of(const Camera& camera, const cv::Mat_<float>& depth, int y, int x)
{
    return camera.centre() + static_cast<double>(depth(y, x)) * camera.ray(cv::Vec2d(x, y)).direction;
}

} // namespace

TEST(SimScene, ImplicitBallIsHitWhereTheAnalyticBallIs)
{
    const cv::Vec3d centre(10, -5, 600);
    const Sphere analytic(centre, 20);
    const Implicit implicit(
        [](const cv::Vec3d& p) { return cv::norm(p) - 20; }, { -25, -25, -25 }, { 25, 25, 25 }, centre);
    std::mt19937 rng(1);
    const double low[3] = { -15, -30, 590 }, high[3] = { 35, 20, 610 };
    int hits = 0;
    for (int i = 0; i < 20000; ++i) {
        const Ray ray { { -80, 0, 0 }, random_point(rng, low, high) - cv::Vec3d(-80, 0, 0) };
        Hit a, b;
        const bool hit_a = analytic.intersect(ray, 0, 1e9, a), hit_b = implicit.intersect(ray, 0, 1e9, b);
        ASSERT_TRUE(hit_a || !hit_b);
        if (!hit_a || cv::norm(a.normal.cross(cv::normalize(ray.direction))) > 0.99995) continue; // grazes
        ++hits;
        ASSERT_TRUE(hit_b);
        ASSERT_LT(cv::norm(a.point - b.point), 1e-7);   // mm; field zero to 1e-10, at grazing incidence over 0.01
        ASSERT_LT(cv::norm(a.normal - b.normal), 2e-6); // step of the gradient over the radius: 1e-5 / 20
    }
    EXPECT_GT(hits, 5000);
}

TEST(SimScene, BustFieldIsALowerBoundOfTheDistance)
{
    std::mt19937 rng(2);
    std::normal_distribution<double> normal;
    for (int i = 0; i < 20000; ++i) {
        const cv::Vec3d p = random_point(rng, bust_low, bust_high);
        const double f = bust_field(p);
        if (f <= 0) continue;
        for (int k = 0; k < 20; ++k) {
            const cv::Vec3d direction = cv::normalize(cv::Vec3d(normal(rng), normal(rng), normal(rng)));
            ASSERT_GT(bust_field(p + 0.999 * f * direction), 0) << p << direction;
        }
    }
}

TEST(SimScene, TrueDepthLeadsBackToTheSurface)
{
    // Depth is stored as float: half a unit in the last place at 700 mm is 3e-5 mm, and rays are oblique.
    constexpr double tolerance = 4e-5;
    const RigOptions options = small_rig();
    const Rig rig = make_rig(options);
    const Camera& camera = rig.cameras[0];
    const Scene bust = make_scene("bust", options), sphere = make_scene("sphere", options);
    const View bust_view(bust, rig, 0), sphere_view(sphere, rig, 0);
    int on_bust = 0, on_ball = 0;
    for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 320; ++x) {
            const cv::Vec3d p = point_of(camera, sphere_view.depth(), y, x);
            ASSERT_NEAR(camera.to_camera(p)[2], static_cast<double>(sphere_view.depth()(y, x)), 1e-9);
            const double off_wall = std::abs(p[2] - 690), off_ball = std::abs(cv::norm(p - cv::Vec3d(0, 0, 610)) - 75);
            ASSERT_LT(std::min(off_wall, off_ball), tolerance) << x << ' ' << y;
            if (off_ball < tolerance) ++on_ball;
            if (std::isnan(bust_view.depth()(y, x))) continue;
            ++on_bust;
            const cv::Vec3d b
                = (point_of(camera, bust_view.depth(), y, x) - cv::Vec3d(0, -13 * bust_scale, 640)) / bust_scale;
            ASSERT_LT(std::abs(bust_field(b)), tolerance) << x << ' ' << y;
        }
    EXPECT_GT(on_ball, 5000);
    EXPECT_GT(on_bust, 10000);
}

TEST(SimScene, ATurnedBustIsTheSameBustSeenFromAnotherSide)
{
    RigOptions options = small_rig();
    for (const double degrees : { 45.0, 180.0, -90.0 }) {
        options.turned_deg = degrees;
        const Rig rig = make_rig(options);
        const View view(make_scene("bust", options), rig, 0);
        const cv::Matx44d scene_from_rig = turned(options).inv();
        int seen = 0, off = 0;
        double worst = 0;
        for (int y = 0; y < 256; ++y)
            for (int x = 0; x < 320; ++x) {
                if (std::isnan(view.depth()(y, x))) continue;
                const cv::Vec3d p = point_of(rig.cameras[0], view.depth(), y, x);
                const cv::Vec4d q = scene_from_rig * cv::Vec4d(p[0], p[1], p[2], 1.0);
                const cv::Vec3d b = (cv::Vec3d(q.val) - cv::Vec3d(0, -13 * bust_scale, 640)) / bust_scale;
                worst = std::max(worst, std::abs(bust_field(b)));
                if (std::abs(bust_field(b)) > 4e-5) ++off;
                ++seen;
            }
        EXPECT_GT(seen, 8000) << degrees;
        EXPECT_LT(worst, 0.2) << degrees;
        EXPECT_LE(off, seen / 5000) << degrees; // where a part of the body is left out the field has a small step
    }
}

/// The shadow and the hidden part, found a second way: by the distance of the ball from the line of sight.
TEST(SimScene, PixelsAreMarkedVisibleExactlyWhereNeitherLightNorSightIsBlocked)
{
    const RigOptions options = small_rig();
    const Rig rig = make_rig(options);
    const Scene scene = make_scene("sphere", options);
    const View view(scene, rig, 0);
    const Truth truth = make_truth(view, options.projector_size.width);
    const cv::Vec3d ball(0, 0, 610);
    const auto open = [&](const cv::Vec3d& p, const Camera& eye) {
        const cv::Vec3d way = eye.centre() - p;
        const bool on_ball = p[2] < 689;
        if (on_ball) return (p - ball).dot(way) > 0 && eye.sees(p); // a ball hides only its own far side
        const double distance = cv::norm((ball - p).cross(way)) / cv::norm(way);
        return distance > 75 && eye.sees(p);
    };
    int hidden = 0;
    for (int y = 0; y < 256; ++y)
        for (int x = 0; x < 320; ++x) {
            const cv::Vec3d p = point_of(rig.cameras[0], truth.depth, y, x);
            const bool visible = open(p, rig.projector) && open(p, rig.cameras[1]);
            ASSERT_EQ(truth.visible(y, x) == 255, visible) << x << ' ' << y;
            if (!visible) ++hidden;
        }
    EXPECT_GT(hidden, 2000);
}
