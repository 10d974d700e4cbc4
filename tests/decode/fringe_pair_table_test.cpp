#include "decode/FringePairTable.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <sstream>

using namespace vexo;

namespace {

using Periods = std::vector<int>;

/// Position behind the start of the fringe at projector coordinate x; -0.5 to T - 0.5, as decoded.
double behind_fringe(double x, int period)
{
    return std::fmod(x + 0.5, period) - 0.5;
}

std::array<float, 3> phases_at(double x, const Periods& T)
{
    std::array<float, 3> phases {};
    for (size_t i = 0; i < 3; ++i)
        phases[i] = static_cast<float>(behind_fringe(x, T[i]) / T[i]);
    return phases;
}

std::vector<Periods> permutations_and_more()
{
    std::vector<Periods> sets { { 9, 10, 13 }, { 13, 14, 15 }, { 24, 27, 31 } };
    for (Periods set : { Periods { 9, 10, 11 }, Periods { 16, 18, 21 }, Periods { 7, 11, 13 } })
        do
            sets.push_back(set);
        while (std::next_permutation(set.begin(), set.end()));
    return sets;
}

TEST(FringePairTable, PhasesGiveBackTheCoordinateThatMadeThemWithNoiseToo)
{
    std::mt19937 rng(6);
    std::uniform_real_distribution<double> noise(-0.24, 0.24); // px; differences stay below half of one
    for (const Periods& set : permutations_and_more()) {
        const FringePairTable table(set);
        ASSERT_TRUE(table.ok) << testing::PrintToString(set);
        for (int i = 0; i <= 9110; ++i) {
            const double x = 0.1 * i;
            // 1e-4: the float sums at 912 round by 3e-5 each, three of them.
            ASSERT_NEAR(table.unwrap(phases_at(x, set).data()), x, 1e-4) << testing::PrintToString(set);
            const double n[] = { noise(rng), noise(rng), noise(rng) };
            auto phases = phases_at(std::floor(x), set);
            for (size_t k = 0; k < 3; ++k)
                phases[k] += static_cast<float>(n[k] / set[k]);
            ASSERT_NEAR(table.unwrap(phases.data()), std::floor(x) + (n[0] + n[1] + n[2]) / 3, 1e-4)
                << testing::PrintToString(set);
        }
        const float zeros[3] = { 0, 0, 0 };
        EXPECT_EQ(table.unwrap(zeros), 0.0F) << testing::PrintToString(set);
    }
}

TEST(FringePairTable, WhateverItResolvesLiesWithinAPixelOfAllThreePhasesAndNothingIsAnIndex)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> phase(-0.2F, 1.2F);
    std::uniform_int_distribution<int> pick(0, 40);
    const float odd[] = { std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
        -std::numeric_limits<float>::infinity(), 1e30F, -1e30F, 3.0e9F, 1.99F, -0.99F, -0.0F, 1.0F };
    for (const Periods& set : { Periods { 9, 10, 11 }, Periods { 11, 10, 9 }, Periods { 15, 16, 17 },
             Periods { 2, 3, 5 }, Periods { 9, 9, 9 }, Periods { 2, 3, 4000 }, Periods { 300, 7, 2 } }) {
        const FringePairTable table(set);
        int resolved = 0;
        for (int i = 0; i < 150000; ++i) {
            std::array<float, 3> phases {};
            for (float& p : phases) {
                const int which = pick(rng);
                p = which < 10 ? odd[which] : phase(rng);
            }
            const float got = table.unwrap(phases.data());
            if (got == static_cast<float>(table.maxp)) continue;
            ++resolved;
            for (size_t k = 0; k < 3; ++k) {
                const double miss
                    = std::remainder(static_cast<double>(got) - static_cast<double>(phases[k]) * set[k], set[k]);
                if (!(std::abs(miss) < 1)) FAIL() << testing::PrintToString(set) << testing::PrintToString(phases);
            }
        }
        EXPECT_GT(resolved, 100) << testing::PrintToString(set);
    }
}

TEST(FringePairTable, SetsItCannotServeLeaveItEmpty)
{
    const int big = std::numeric_limits<int>::max();
    for (const Periods& set : { Periods {}, Periods { 9 }, Periods { 9, 10 }, Periods { 9, 10, 11, 12 },
             Periods { 1, 9, 10 }, Periods { 0, 9, 10 }, Periods { 9, 0, 10 }, Periods { 9, 10, -11 },
             Periods { big, big, big }, Periods { big - 1, big - 1, big - 1 }, Periods { 46341, 46349, 2 },
             Periods { 2, 4096, 8192 }, // 4099 x 8195 slots
             Periods { std::numeric_limits<int>::min(), 3, 5 } }) {
        const FringePairTable table(set);
        const float phases[] = { 0.1F, 0.2F, 0.3F };
        EXPECT_FALSE(table.ok) << testing::PrintToString(set);
        EXPECT_TRUE(table.table.empty() && table.numbers.empty() && table.offsets.empty());
        EXPECT_EQ(table.unwrap(phases), static_cast<float>(table.maxp));
    }
    EXPECT_EQ(FringePairTable({ 12 }).maxp, 12);
    EXPECT_EQ(FringePairTable({ 12, 18 }).maxp, 36);
    EXPECT_EQ(FringePairTable({ 9, 10, 11, 12 }).maxp, 1980);
}

TEST(FringePairTable, InconsistentDifferencesAreUnresolved)
{
    const FringePairTable table({ 9, 10, 11 });
    // Differences of 0.4 px to the first period round to 0, that of the other two, 0.8 px, does not.
    const float phases[] = { 5.0F / 9, 5.4F / 10, 4.6F / 11 };
    EXPECT_EQ(table.unwrap(phases), 990.0F);
}

TEST(FringePairTable, PrintListsEverySlotWithRawNumbers)
{
    testing::internal::CaptureStdout();
    FringePairTable({ 4, 3, 6 }).print();
    std::istringstream lines(testing::internal::GetCapturedStdout());
    std::string line;
    std::getline(lines, line);
    EXPECT_EQ(line, "index\tPhaseDiff(Pn-P0)\tFringeNumbers");
    std::vector<std::string> slots;
    while (std::getline(lines, line))
        slots.push_back(line);
    ASSERT_EQ(slots.size(), 88U); // (3 + 4 + 1) (6 + 4 + 1)
    EXPECT_EQ(slots[0], std::string("0\t[-3, -6]\t[\0, \0, \0]", 20));
    EXPECT_EQ(slots[3 + 6 * 8], std::string("51\t[0, 0]\t[\0, \0, \0]", 19)) << "position 0";
    EXPECT_EQ(slots[6 + 6 * 8], std::string("54\t[3, 0]\t[\0, \1, \0]", 19)) << "position 3 to 4";
    EXPECT_EQ(slots[7 + 6 * 8], std::string("55\t[4, 0]\t[\0, \1, \0]", 19)) << "empty: repeats the one before";
}

} // namespace
