#include "host/clouds/align.h"
#include "host/clouds/ball_fit.h"
#include "host/clouds/gaps.h"
#include "host/clouds/nearest.h"
#include "host/clouds/plane_fit.h"
#include "host/clouds/sphere_fit.h"

#include <gtest/gtest.h>
#include <opencv2/core/affine.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>
#include <random>

namespace {

using namespace vexo;

const Sight sight { { 160, 128 }, 300, 80, 64, 60 };

/// A point of the line of sight through a pixel, at a depth with noise.
class Camera {
public:
    Camera(double sigma, unsigned seed)
        : _sigma(sigma)
        , _random(seed)
    {
    }
    /// Whatever `depth` is NaN for is not seen. Noise moves points along their lines of sight.
    std::vector<Sighted> see(const std::function<double(const cv::Vec3d&)>& depth)
    {
        std::normal_distribution<double> noise;
        std::vector<Sighted> points;
        for (int y = 0; y < sight.size.height; ++y)
            for (int x = 0; x < sight.size.width; ++x) {
                const cv::Vec3d line((x - sight.cx) / sight.f, (y - sight.cy) / sight.f, 1);
                const double z = depth(line) + _sigma * noise(_random);
                if (z == z) points.push_back({ z * line, std::max(_sigma, 1e-6), { x, y } });
            }
        return points;
    }

private:
    double _sigma;
    std::mt19937 _random;
};

const cv::Vec3d tilted = cv::normalize(cv::Vec3d(0.3, -0.2, -1));

double on_tilted_plane(const cv::Vec3d& line)
{
    return 600 * tilted[2] / tilted.dot(line);
}

std::function<double(const cv::Vec3d&)> ball_at(const cv::Vec3d& centre, double radius)
{
    return [=](const cv::Vec3d& line) {
        const double a = line.dot(line), b = line.dot(centre), c = centre.dot(centre) - radius * radius;
        return b * b < a * c ? std::nan("") : (b - std::sqrt(b * b - a * c)) / a;
    };
}

TEST(NearestPoints, AreThoseOfALookAtEveryPoint)
{
    std::mt19937 random(3);
    std::uniform_real_distribution<double> unit(-1, 1);
    std::vector<cv::Vec3d> points;
    for (int i = 0; i < 700; ++i)
        points.emplace_back(unit(random), unit(random), i % 7 == 0 ? 0.0 : unit(random));
    const NearestPoints near(points);
    for (int trial = 0; trial < 200; ++trial) {
        const cv::Vec3d place = (trial % 5 == 0 ? 10.0 : 1.2) * cv::Vec3d(unit(random), unit(random), unit(random));
        std::vector<std::size_t> all(points.size());
        std::iota(all.begin(), all.end(), std::size_t { 0 });
        std::sort(all.begin(), all.end(),
            [&](std::size_t a, std::size_t b) { return cv::norm(points[a] - place) < cv::norm(points[b] - place); });
        const std::size_t count = 1U + static_cast<std::size_t>(trial) % 15U;
        all.resize(count);
        EXPECT_EQ(near.nearest(place, count), all);
        EXPECT_EQ(near.nearest(place), all[0]);
    }
}

TEST(NearestPoints, OfEqualPointsEachIsFoundOnceAndOfFewNoMoreThanThereAre)
{
    const std::vector<cv::Vec3d> equal(100, { 1, 2, 3 });
    auto found = NearestPoints(equal).nearest({ 1, 2, 3 }, 40);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found.size(), 40U);
    EXPECT_EQ(std::unique(found.begin(), found.end()), found.end());
    const std::vector<cv::Vec3d> two { { 0, 0, 0 }, { 5, 0, 0 } }, none;
    EXPECT_EQ(NearestPoints(two).nearest({ 4, 0, 0 }, 9), (std::vector<std::size_t> { 1, 0 }));
    EXPECT_TRUE(NearestPoints(none).nearest({ 4, 0, 0 }, 9).empty());
}

TEST(PlaneFit, IsOffByNoMoreThanItsNoiseLetsExpectAndFacesTheCamera)
{
    double squares = 0.0;
    constexpr double sigma = 0.5;
    constexpr int seeds = 10;
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        const auto points = Camera(sigma, seed).see(on_tilted_plane);
        const auto fit = fit_plane(points, true);
        ASSERT_TRUE(fit);
        EXPECT_GT(fit->inliers.size(), 0.999 * static_cast<double>(points.size()));
        EXPECT_NEAR(fit->depth_rms, sigma, 0.03 * sigma) << "20 000 residuals scatter by 0.5 %";
        EXPECT_NEAR(fit->rms, fit->noise, 0.03 * fit->noise);
        EXPECT_LT(fit->normal[2], 0);
        cv::Vec3d middle;
        for (const Sighted& s : points)
            middle += s.point / static_cast<double>(points.size());
        const cv::Vec3d on_plane = middle * on_tilted_plane(middle / middle[2]) / middle[2];
        const double of_mean = fit->noise / std::sqrt(static_cast<double>(points.size()));
        squares += std::pow((fit->normal.dot(on_plane) - fit->offset) / of_mean, 2) / seeds;
    }
    EXPECT_LT(squares, 2.8) << "1 + 4 sqrt(2 / 10)";
}

TEST(PlaneFit, FindsTheLargerOfTwoPlanesAndNoneInACloudOrInTooFewPoints)
{
    const auto two = [](const cv::Vec3d& line) { return line[0] < 0.1 ? on_tilted_plane(line) : 500.0; };
    const auto points = Camera(0.1, 1).see(two);
    const auto fit = fit_plane(points, true);
    ASSERT_TRUE(fit);
    EXPECT_GT(fit->normal.dot(tilted), std::cos(1e-3)); // rad; the noise is 0.1 mm over 300 mm
    EXPECT_GT(fit->inliers.size(), points.size() / 2);
    std::mt19937 random(2);
    std::uniform_real_distribution<double> anywhere(400, 800);
    EXPECT_FALSE(fit_plane(Camera(0.1, 1).see([&](const cv::Vec3d&) { return anywhere(random); }), true));
    std::vector<Sighted> few(points.begin(), points.begin() + fewest_plane_points - 1);
    EXPECT_FALSE(fit_plane(few, true));
    EXPECT_FALSE(fit_plane(std::vector<Sighted>(500, points[0]), true)) << "one point, many times";
}

TEST(BallFit, ItsDiameterIsOffByAsMuchAsItsSigmaSays)
{
    const cv::Vec3d centre(10, -15, 500);
    double squares = 0.0, mean_sigma = 0.0;
    constexpr int seeds = 20;
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        const auto fit = find_ball(Camera(0.2, seed).see(ball_at(centre, 40)), sight, 80, true);
        ASSERT_TRUE(fit);
        squares += std::pow((fit->diameter - 80) / fit->diameter_sigma, 2) / seeds;
        mean_sigma += fit->diameter_sigma / seeds;
        const cv::Vec3d off = fit->centre - centre;
        EXPECT_LT(off.dot(fit->centre_covariance.inv() * off), 25) << "chi squared of three, beyond 1e-4";
        EXPECT_NEAR(fit->rms, fit->noise, 0.15 * fit->noise) << "some 800 points";
    }
    // Of 20 squares the mean lies within 1 +- 4 sqrt(2 / 20); a diameter whose sigma is a tenth would pass no test.
    EXPECT_LT(squares, 2.3);
    EXPECT_GT(squares, 0.2);
    EXPECT_LT(mean_sigma, 0.2) << "many points know more than one";
}

TEST(BallFit, APlaneAnotherDiameterAndTooFewPointsAreNoBall)
{
    EXPECT_FALSE(find_ball(Camera(0.05, 1).see(on_tilted_plane), sight, 80, true));
    const auto ball = Camera(0.05, 1).see(ball_at({ 10, -15, 500 }, 40));
    for (const double diameter : { 70.0, 92.0, 800.0, 1.0 })
        EXPECT_FALSE(find_ball(ball, sight, diameter, true)) << diameter;
    EXPECT_TRUE(find_ball(ball, sight, 79, true));
    EXPECT_FALSE(find_ball({}, sight, 80, true));
    EXPECT_FALSE(find_ball(std::vector<Sighted>(60, ball[0]), sight, 80, true));
}

/// A patch of a body with its noise, by two numbers from 0 to 1.
std::vector<Sighted> patch(const std::function<cv::Vec3d(double, double)>& at, double phase, double sigma = 0.0)
{
    std::mt19937 random(9);
    std::normal_distribution<double> noise;
    std::vector<Sighted> points;
    for (int i = 0; i < 50; ++i)
        for (int j = 0; j < 50; ++j) {
            Sighted s;
            s.point = at((i + phase) / 50, (j + phase) / 50) * (1 + sigma / 500 * noise(random));
            s.sigma = std::max(sigma, 1e-3);
            points.push_back(s);
        }
    return points;
}

cv::Vec3d of_waves(double u, double v)
{
    const double x = 80 * u - 40, y = 80 * v - 40;
    return { x, y, 500 + 12 * std::sin(0.08 * x) + 12 * std::sin(0.08 * y + 1) + 0.005 * x * y };
}

TEST(Align, FindsTheMotionThatACloudWasMovedByWithinItsNoise)
{
    const auto reference = patch(of_waves, 0.0);
    for (const double sigma : { 0.0, 0.1 })
        for (const cv::Affine3d& motion : { cv::Affine3d(cv::Vec3d(0.02, -0.03, 0.02), cv::Vec3d(-10, 18, 12)),
                 cv::Affine3d(cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0)) }) {
            std::vector<Sighted> moved = patch(of_waves, 0.3, sigma);
            for (Sighted& s : moved)
                s.point = motion * s.point;
            const Aligned found = align(moved, reference, true);
            EXPECT_TRUE(found.converged);
            EXPECT_EQ(found.free_directions, 0);
            const cv::Affine3d left = cv::Affine3d(found.reference_from_cloud) * motion;
            const double off = cv::norm(left * of_waves(0.5, 0.5) - of_waves(0.5, 0.5));
            // Planes by twelve points bend 0.02 mm; 2500 points of 0.1 mm hold it fifty times better than one.
            EXPECT_LT(off, 0.05 + 0.1 * sigma) << sigma;
            EXPECT_GT(found.overlap, 0.95);
        }
}

TEST(Align, SaysInHowManyDirectionsABodyMaySlideOnItself)
{
    const auto plane = [](double u, double v) { return cv::Vec3d(80 * u - 40, 80 * v - 40, 500); };
    const auto cylinder = [](double u, double v) {
        return cv::Vec3d(40 * std::sin(3 * u - 1.5), 80 * v - 40, 500 - 40 * std::cos(3 * u - 1.5));
    };
    const auto ball = [](double u, double v) {
        const double a = 3 * u - 1.5, b = 2.4 * v - 1.2;
        return cv::Vec3d(40 * std::sin(a) * std::cos(b), 40 * std::sin(b), 500 - 40 * std::cos(a) * std::cos(b));
    };
    EXPECT_EQ(align(patch(plane, 0.3), patch(plane, 0.0), true).free_directions, 3) << "two shifts and a turn";
    EXPECT_EQ(align(patch(cylinder, 0.3), patch(cylinder, 0.0), true).free_directions, 2) << "a shift and a turn";
    EXPECT_EQ(align(patch(ball, 0.3), patch(ball, 0.0), true).free_directions, 3) << "three turns";
    EXPECT_EQ(align(patch(of_waves, 0.3), patch(of_waves, 0.0), true).free_directions, 0);
}

TEST(Align, MeasuresNoDistanceWhereTheReferenceHasNoSurface)
{
    const auto half = [](double u, double v) { return of_waves(0.5 * u, v); };
    const Aligned found = align(patch(of_waves, 0.0), patch(half, 0.0), true);
    ASSERT_EQ(found.distances.size(), 2500U);
    EXPECT_NEAR(found.overlap, 0.5, 0.1) << "four spacings of the reference reach over its rim";
    double worst = 0;
    for (const double d : found.distances)
        if (d == d) worst = std::max(worst, std::abs(d));
    EXPECT_LT(worst, 1.0) << "what counts lies on it";
}

TEST(Gaps, OfAPlaneAreFilledByThePlaneAndThoseBetweenTwoSurfacesAreLeft)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    cv::Mat_<float> disparity(20, 40), sigma(20, 40, 0.01F);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 40; ++x)
            disparity(y, x) = 3.0F + 0.11F * static_cast<float>(x) - 0.07F * static_cast<float>(y);
    const cv::Mat_<float> whole = disparity.clone();
    disparity(10, 8) = disparity(10, 9) = nan;                    // two: filled
    disparity(5, 20) = disparity(5, 21) = disparity(5, 22) = nan; // three: left
    disparity.colRange(31, 40) += 6.0F;                           // a step,
    disparity.col(30).setTo(nan);                                 // and a gap along it
    disparity(15, 0) = disparity(0, 15) = nan;                    // one at the rim has no neighbour
    const cv::Mat_<float> planes = planes_over_gaps(disparity, sigma);
    EXPECT_NEAR(planes(10, 8), whole(10, 8), 1e-5); // of floats near 4
    EXPECT_NEAR(planes(10, 9), whole(10, 9), 1e-5);
    EXPECT_TRUE(std::isnan(planes(15, 0)));
    for (int y = 0; y < 20; ++y)
        EXPECT_TRUE(std::isnan(planes(y, 30))) << y;
    int filled = 0;
    for (const float d : planes)
        filled += d == d ? 1 : 0;
    EXPECT_EQ(filled, std::isnan(planes(0, 15)) ? 2 : 3);
}

TEST(Gaps, OddMapsHaveNone)
{
    const double nan = std::nan("");
    for (const cv::Size size : { cv::Size(1, 1), cv::Size(1, 30), cv::Size(30, 1), cv::Size(3, 3) })
        for (const double value : { nan, 5.0 }) {
            const cv::Mat map(size, CV_32F, cv::Scalar(value));
            const cv::Mat planes = planes_over_gaps(map, map);
            EXPECT_EQ(planes.size(), size);
            EXPECT_EQ(cv::countNonZero(planes == planes), 0);
        }
}

} // namespace
