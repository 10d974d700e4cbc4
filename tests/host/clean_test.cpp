#include "base/cpu.h"
#include "host/clouds/clean.h"
#include "host/measurement/texture.h"

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace {

using namespace vexo;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr CleaningRules median { true }, neighbours { false, true }, edges { false, false, true },
    speckles { false, false, false, 120 };

/// A slope with noise of 0.05 px, and its sigma.
struct Map {
    explicit Map(float step = 0.0F)
        : disparity(96, 128, CV_32F)
        , sigma(96, 128, CV_32F, cv::Scalar(0.05))
    {
        cv::RNG rng(7);
        for (int y = 0; y < disparity.rows; ++y)
            for (int x = 0; x < disparity.cols; ++x)
                disparity.at<float>(y, x)
                    = 0.05F * static_cast<float>(x) + (x >= 64 ? step : 0.0F) + static_cast<float>(rng.gaussian(0.05));
    }
    int count(const CleaningRules& rules) const { return cv::countNonZero(find_faults(disparity, sigma, rules)); }
    cv::Mat disparity, sigma;
};

/// The definition: sorts the 25 values, what is missing first.
bool far_from_median(const cv::Mat& disparity, int y, int x, float limit)
{
    std::vector<float> values;
    for (int dy = -2; dy <= 2; ++dy)
        for (int dx = -2; dx <= 2; ++dx) {
            const cv::Point at(x + dx, y + dy);
            const bool inside = at.inside(cv::Rect({}, disparity.size()));
            const float value = inside ? disparity.at<float>(at) : nan;
            values.push_back(value == value ? value : -std::numeric_limits<float>::infinity());
        }
    std::nth_element(values.begin(), values.begin() + 12, values.end());
    const float d = disparity.at<float>(y, x);
    return values[12] > d + limit || values[12] < d - limit;
}

TEST(Cleaning, LeavesASurfaceAndItsRimAndTakesWhatHangsInTheAir)
{
    Map map;
    map.disparity.colRange(100, 128).setTo(nan); // a silhouette
    for (const CleaningRules& rules : { median, neighbours, edges, speckles })
        EXPECT_EQ(map.count(rules), rules.median ? 12 : rules.neighbours ? 4 : 0); // corners see too little
    map.disparity.at<float>(40, 30) += 3.0F;
    map.disparity.at<float>(50, 110) = 5.0F; // alone
    for (const CleaningRules& rules : { median, neighbours, speckles })
        for (const cv::Point at : { cv::Point(30, 40), cv::Point(110, 50) })
            EXPECT_NE(find_faults(map.disparity, map.sigma, rules).at<uchar>(at), 0) << at;
    map.sigma.at<float>(40, 30) = nan; // not known: it stays
    EXPECT_EQ(find_faults(map.disparity, map.sigma, median).at<uchar>(40, 30), 0);
}

TEST(Cleaning, TakesBothSidesOfAStepAsEdgesAloneAndSmallPatchesAsSpeckles)
{
    Map step(6.0F);
    EXPECT_EQ(step.count(neighbours), 8); // corners of both sides have three
    EXPECT_EQ(step.count(edges), 2 * step.disparity.rows);
    Map patch;
    patch.disparity(cv::Rect(20, 20, 3, 3)) += 4.0F; // at this size a speckle has fewer than 12 px
    const cv::Mat faults = find_faults(patch.disparity, patch.sigma, speckles);
    EXPECT_EQ(cv::countNonZero(faults), 9);
    EXPECT_EQ(faults.at<uchar>(21, 21), static_cast<uchar>(Fault::speckle));
    EXPECT_EQ(find_faults(patch.disparity, {}, {}).size(), patch.disparity.size());
}

TEST(Cleaning, CountsAsASortedWindowWould)
{
    cv::RNG rng(3);
    Map map;
    for (int i = 0; i < 4000; ++i)
        map.disparity.at<float>(rng.uniform(0, 96), rng.uniform(0, 128))
            = i % 3 == 0 ? nan : static_cast<float>(rng.uniform(-2.0, 8.0));
    Cpu::allow_avx2(false);
    const cv::Mat plain = find_faults(map.disparity, map.sigma, median);
    Cpu::allow_avx2(true);
    const cv::Mat faults = find_faults(map.disparity, map.sigma, median);
    EXPECT_EQ(cv::norm(plain, faults, cv::NORM_INF), 0.0);
    for (int y = 0; y < 96; ++y)
        for (int x = 0; x < 128; ++x) {
            const float d = map.disparity.at<float>(y, x);
            const bool expected
                = d == d && far_from_median(map.disparity, y, x, 0.5F + 4.0F * map.sigma.at<float>(y, x));
            ASSERT_EQ(faults.at<uchar>(y, x) != 0, expected) << x << ' ' << y;
        }
}

TEST(Cleaning, TakesBlocksThatShowNothingButNoiseWhateverTheLight)
{
    cv::RNG rng(3);
    cv::Mat texture(128, 160, CV_32F);
    rng.fill(texture, cv::RNG::NORMAL, 0.0, 150.0);
    cv::GaussianBlur(texture, texture, {}, 2.0);
    texture.colRange(0, 64).setTo(0); // a bare wall
    for (const double light : { 0.5, 1.0, 2.0 }) {
        cv::Mat picture(texture.size(), CV_32F), seen;
        rng.fill(picture, cv::RNG::NORMAL, 128.0, 1.5);
        cv::Mat(picture + light * texture).convertTo(seen, CV_8U);
        EXPECT_NEAR(picture_noise(seen), 1.5 * 1.5, 0.5); // the least tenth of 80 blocks is somewhat low
        const double noise = picture_noise(seen);
        const cv::Mat bare = lacks_texture({ seen, seen }, { noise, noise }, cv::Mat::zeros(seen.size(), CV_32F));
        EXPECT_GT(cv::countNonZero(bare.colRange(0, 60)), 0.99 * 60 * 128) << light;
        EXPECT_LT(cv::countNonZero(bare.colRange(68, 160)), (light < 1.0 ? 0.1 : 0.03) * 92 * 128) << light;
        const cv::Mat into_wall = lacks_texture({ seen, seen }, { noise, noise }, cv::Mat(seen.size(), CV_32F, 90.0));
        EXPECT_EQ(cv::countNonZero(into_wall.colRange(70, 140)), 70 * 128) << light; // what it was found in is bare
    }
}

} // namespace
