#include "host/clouds/smooth.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

using namespace vexo;

constexpr int width = 160, height = 120;
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

/// Noise of unit variance a raw pixel, read between pixels, and its standard deviation there.
struct Reading {
    cv::Mat_<float> raw = cv::Mat_<float>(height + 2, width + 8);
    static double across(int y) { return std::fmod(0.031 * y, 1.0); }
    static double along(int x) { return std::fmod(0.023 * x, 1.0); }
    static double share(double u) { return (1 - u) * (1 - u) + u * u; }

    double at(int y, int x, double u, double v) const
    {
        return (1 - v) * ((1 - u) * raw(y, x) + u * raw(y, x + 1))
            + v * ((1 - u) * raw(y + 1, x) + u * raw(y + 1, x + 1));
    }
};

TEST(Smoothing, SaysTheSigmaOfItsFitsToPointsThatShareRawPixelsAndSamples)
{
    Reading cam0, cam1;
    cv::RNG rng(5);
    rng.fill(cam0.raw, cv::RNG::NORMAL, 0, 1);
    rng.fill(cam1.raw, cv::RNG::NORMAL, 0, 1);
    cv::Mat disparity(height, width, CV_32F), sigma(height, width, CV_32F);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double u = Reading::along(x), v = Reading::across(y);
            double noise = cam0.at(y, x, u, v);
            for (int j = 0; j < 5; ++j) // the middle of a line through five samples
                noise += cam1.at(y, x + j, u, v) / 5;
            disparity.at<float>(y, x) = static_cast<float>(0.1 * x + 0.05 * y + 0.02 * noise);
            sigma.at<float>(y, x) = static_cast<float>(
                0.02 * std::sqrt(Reading::share(v) * (Reading::share(u) + (4 + Reading::share(u)) / 25)));
        }
    const Smoothed smoothed = smooth(disparity, sigma);
    double before = 0, after = 0, z = 0, count = 0;
    for (int y = 3; y < height - 3; ++y)
        for (int x = 3; x < width - 3; ++x, ++count) {
            const double off = smoothed.disparity.at<float>(y, x) - 0.1 * x - 0.05 * y;
            before += std::pow(disparity.at<float>(y, x) - 0.1 * x - 0.05 * y, 2);
            after += off * off;
            z += std::pow(off / smoothed.sigma.at<float>(y, x), 2);
        }
    EXPECT_NEAR(std::sqrt(z / count), 1, 0.1);
    EXPECT_LT(std::sqrt(after / before), 0.5) << "a plane loses more than half of its noise";
    EXPECT_EQ(smoothed.changed, (width - 2) * (height - 2) - 4) << "4 x 7 and 5 x 5 are less than 60 % of 7 x 7";
}

TEST(Smoothing, KeepsQuadraticsStepsAndHolesAndWhatHasNoSigma)
{
    cv::Mat disparity(height, width, CV_32F), sigma(height, width, CV_32F, cv::Scalar(0.02));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            disparity.at<float>(y, x)
                = 0.0008F * static_cast<float>((x - 70) * (x - 70) - x * y) + (x >= 80 ? 3.0F : 0.0F);
    disparity(cv::Rect(20, 20, 10, 10)).setTo(nan);
    disparity.at<float>(60, 40) += 0.5F;
    sigma.at<float>(60, 40) = nan; // nobody knows how far off it is: it moves neither itself nor others
    const Smoothed smoothed = smooth(disparity, sigma);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float is = smoothed.disparity.at<float>(y, x), was = disparity.at<float>(y, x);
            ASSERT_TRUE(was == was ? std::abs(is - was) < 1e-4F : is != is) << x << ' ' << y;
        }
    EXPECT_TRUE(std::isnan(smoothed.sigma.at<float>(60, 40)));
    EXPECT_LT(smoothed.sigma.at<float>(60, 120), 0.012F);
}

} // namespace
