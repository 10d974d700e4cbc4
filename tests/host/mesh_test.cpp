#include "host/clouds/mesh.h"
#include "host/clouds/normals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

namespace {

using namespace vexo;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
const DisparityScale scale { 1200, 100, 60, 160, 3 };

/// A map of disparities with noise, and what belongs to it.
struct Map {
    /// @param depth  at a line of sight (x, y, 1); NaN: nothing is there
    Map(const std::function<double(const cv::Vec3d&)>& depth, float noise)
        : disparity(120, 200, CV_32F)
        , depths(120, 200, CV_32F)
        , sigma(120, 200, CV_32F, cv::Scalar(noise))
        , sigma_of_depth(120, 200, CV_32F)
    {
        cv::RNG rng(7);
        for (int y = 0; y < 120; ++y)
            for (int x = 0; x < 200; ++x) {
                const double z = depth(sight({ x, y }));
                disparity.at<float>(y, x) = static_cast<float>(scale.disparity(z) + rng.gaussian(noise));
                depths.at<float>(y, x) = static_cast<float>(scale.depth(disparity.at<float>(y, x)));
                sigma_of_depth.at<float>(y, x) = noise / static_cast<float>(scale.px_per_length(z));
            }
    }
    static cv::Vec3d sight(cv::Point p) { return { (p.x - scale.cx) / scale.f, (p.y - scale.cy) / scale.f, 1 }; }
    cv::Vec3d point(cv::Point p) const { return sight(p) * static_cast<double>(depths.at<float>(p)); }

    cv::Mat disparity, depths, sigma, sigma_of_depth;
};

const cv::Vec3d tilted = cv::normalize(cv::Vec3d(0.5, -0.3, -1));

double on_plane(const cv::Vec3d& sight)
{
    return 640 * tilted[2] / tilted.dot(sight);
}

/// Degrees, root of the mean square, over the pixels that have one.
double rms_angle(const cv::Mat_<cv::Vec3f>& normals)
{
    double sum = 0, count = 0;
    for (const cv::Vec3f& n : normals)
        if (n[0] == n[0]) sum += std::pow(cv::norm(cv::Vec3d(n) - tilted) * 180 / CV_PI, 2), ++count;
    return std::sqrt(sum / count);
}

TEST(Normals, OfAPlaneAreExactAndWithNoiseAsGoodAsItsFitLetsExpect)
{
    Map exact(on_plane, 0.0F), noisy(on_plane, 0.022F); // px: a refined map at 1.6 grey levels
    exact.disparity(cv::Rect(50, 40, 30, 30)).setTo(nan);
    const auto normals = surface_normals(exact.disparity, exact.sigma, scale);
    EXPECT_LT(rms_angle(normals), 0.01) << "disparities of 300 px are floats: steps of 3e-5 px";
    EXPECT_TRUE(std::isnan(normals(50, 60)[0]) && !std::isnan(normals(39, 60)[0]));
    // Slopes of a 7 x 7 fit: sigma / sqrt(196) each. n = -(a f, b f, d - d_inf): slope noise times f over the length.
    const double expected = 0.022 / 14 * scale.f / (scale.f * scale.baseline / 640) * 180 / CV_PI;
    const double inside = rms_angle(surface_normals(noisy.disparity, noisy.sigma, scale)(cv::Rect(3, 3, 194, 114)));
    EXPECT_LT(inside, 1.5 * expected) << "both slopes count: up to sqrt 2 of one";
    EXPECT_GT(inside, 0.7 * expected);
}

TEST(Normals, KeepTheirSurfaceAtAStepAndFaceTheCameraWhereNothingIsKnown)
{
    Map step([](const cv::Vec3d& q) { return on_plane(q) - (q[0] > 0 ? 15.0 : 0.0); }, 0.0F);
    const auto normals = surface_normals(step.disparity, cv::Mat(), scale);
    EXPECT_LT(rms_angle(normals.colRange(0, 100)), 0.01) << "up to the step, where sigma is not known either";
    cv::Mat lone(120, 200, CV_32F, cv::Scalar(nan));
    for (int x = 20; x < 40; ++x)
        lone.at<float>(30, x) = 300.0F; // a line has no normal
    const cv::Vec3f n = surface_normals(lone, lone, scale)(30, 25);
    EXPECT_LT(cv::norm(cv::Vec3d(n) + cv::normalize(Map::sight({ 25, 30 }))), 1e-6);
    for (const float wild : { 1e-30F, 1e30F, std::numeric_limits<float>::infinity(), -1.0F }) {
        step.sigma.at<float>(60, 50) = wild;
        EXPECT_LT(rms_angle(surface_normals(step.disparity, step.sigma, scale).colRange(0, 100)), 0.01) << wild;
    }
}

TEST(Mesh, CoversASurfaceWithHolesOnceSeenCounterClockwiseByTheCamera)
{
    Map map(on_plane, 0.022F);
    map.depths(cv::Rect(50, 40, 30, 20)).setTo(nan); // 31 x 21 quads go
    map.depths.at<float>(80, 100) = nan;
    map.depths.at<float>(0, 1) = map.depths.at<float>(1, 0) = map.depths.at<float>(1, 1) = nan; // (0, 0) is alone
    const GridMesh mesh = mesh_of(map.depths, map.sigma_of_depth, scale);
    EXPECT_EQ(mesh.pixels.size(), 120U * 200 - 30 * 20 - 1 - 4);
    EXPECT_EQ(mesh.triangles.size(), 2U * (119 * 199 - 31 * 21 - 4 - 4) + 4 + 4 + 1) << "one where three are left";
    std::size_t away = 0;
    double area = 0; // px^2; each pixel is covered once at most
    for (const auto& t : mesh.triangles) {
        const cv::Point a = mesh.pixels[t[0]], b = mesh.pixels[t[1]], c = mesh.pixels[t[2]];
        const cv::Vec3d normal = (map.point(b) - map.point(a)).cross(map.point(c) - map.point(a));
        away += normal.dot(map.point(a)) >= 0;
        area -= 0.5 * (b - a).cross(c - a); // y points down
    }
    EXPECT_EQ(away, 0U);
    EXPECT_DOUBLE_EQ(area, 0.5 * static_cast<double>(mesh.triangles.size()));
}

TEST(Mesh, SpansNoStepButASurfaceSeenFromTheSideAndNoiseAsSigmaSaysIt)
{
    const auto triangles = [](const Map& map, const cv::Mat& sigma) { return mesh_of(map.depths, sigma, scale); };
    const Map step([](const cv::Vec3d& q) { return q[0] > 0 ? 642.5 : 640.0; }, 0.0F); // 75 degrees: 2 mm a pixel
    EXPECT_EQ(triangles(step, cv::Mat()).triangles.size(), 2U * 119 * 198) << "all but one column";
    const auto seen_at = [](double degrees) {
        return [slope = std::tan(degrees * CV_PI / 180)](const cv::Vec3d& q) { return 640 / (1 - slope * q[0]); };
    };
    const GridMesh flat = triangles(Map(seen_at(70), 0.0F), cv::Mat());
    const GridMesh steep = triangles(Map(seen_at(78), 0.0F), cv::Mat());
    EXPECT_EQ(flat.triangles.size(), 2U * 119 * 199);
    EXPECT_GT(steep.triangles.size(), 2U * 119 * 30);
    for (const cv::Point& p : steep.pixels) // a step over a pixel's width is tan(78) z / 640
        ASSERT_LT(std::tan(78 * CV_PI / 180) * seen_at(78)(Map::sight(p - cv::Point(1, 0))) / 640, 3.7321) << p;
    const auto flat_with = [](float noise) { return Map([](const cv::Vec3d&) { return 640.0; }, noise); };
    const Map noisy = flat_with(0.35F), wild = flat_with(2.0F); // px; 1.1 and 6 mm between neighbours
    EXPECT_GT(triangles(noisy, noisy.sigma_of_depth).triangles.size(), 0.97 * 2 * 119 * 199) << "three sigma";
    EXPECT_LT(triangles(noisy, cv::Mat()).triangles.size(), 0.93 * 2 * 119 * 199);
    EXPECT_LT(triangles(wild, wild.sigma_of_depth).triangles.size(), 0.5 * 2 * 119 * 199) << "sigma opens no step";
}

} // namespace
