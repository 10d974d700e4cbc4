#include "host/measurement/disparity_range.h"

#include <gtest/gtest.h>

namespace {

TEST(OccupiedRange, HoldsSmallSurfacesAndLeavesOutScatteredMatches)
{
    cv::RNG rng(3);
    std::vector<float> disparities;
    for (int i = 0; i < 1000000; ++i)
        disparities.push_back(static_cast<float>(rng.uniform(100.0, 180.0)));
    for (int i = 0; i < 10000; ++i) // 40 in each step of 8 px
        disparities.push_back(static_cast<float>(rng.uniform(-1000.0, 1000.0)));
    for (int i = 0; i < 400; ++i) // a ball of 23 px across, near the cameras
        disparities.push_back(static_cast<float>(rng.uniform(560.0, 567.0)));
    const auto range = vexo::occupied_range(disparities);
    ASSERT_TRUE(range);
    EXPECT_LE(range->first, 92.0);
    EXPECT_GE(range->first, 60.0);
    EXPECT_GE(range->second, 575.0);
    EXPECT_LE(range->second, 610.0);
    EXPECT_FALSE(vexo::occupied_range({}));
    const auto one = vexo::occupied_range({ -5.0F });
    ASSERT_TRUE(one);
    EXPECT_LT(one->first, -5.0);
    EXPECT_GT(one->second, -5.0);
}

} // namespace
