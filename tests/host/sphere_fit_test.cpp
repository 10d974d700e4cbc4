#include "host/clouds/sphere_fit.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using vexo::fit_sphere;
using vexo::SphereFit;

/// Points of a cap of 60 degrees around -z, seen from the origin.
std::vector<cv::Vec3d> cap(const cv::Vec3d& centre, double radius, std::size_t count, std::mt19937& random)
{
    std::uniform_real_distribution<double> cosine(0.5, 1.0), turn(0.0, CV_2PI);
    std::vector<cv::Vec3d> points;
    for (std::size_t i = 0; i < count; ++i) {
        const double c = cosine(random), s = std::sqrt(1 - c * c), a = turn(random);
        points.push_back(centre + radius * cv::Vec3d(s * std::cos(a), s * std::sin(a), -c));
    }
    return points;
}

TEST(SphereFit, FindsTheSphereThatItsPointsWereMadeOfAmongStrays)
{
    std::mt19937 random(1);
    const cv::Vec3d centre(-67, 3, 590);
    std::vector<cv::Vec3d> points = cap(centre, 20, 2000, random);
    EXPECT_NEAR(fit_sphere(points).diameter, 40, 1e-6);

    std::uniform_real_distribution<double> stray(-2, 2);
    for (int i = 0; i < 200; ++i)
        points.push_back(centre + cv::Vec3d(stray(random), stray(random), -20 + stray(random)));
    const SphereFit fit = fit_sphere(points);
    EXPECT_NEAR(fit.diameter, 40, 1e-3);
    EXPECT_LT(cv::norm(fit.centre - centre), 1e-3);
}

TEST(SphereFit, PointsThatMakeNoSphereGiveNone)
{
    EXPECT_EQ(fit_sphere({}).points, 0U);
    EXPECT_EQ(fit_sphere(std::vector<cv::Vec3d>(49, { 1, 2, 3 })).points, 0U);
}

} // namespace
