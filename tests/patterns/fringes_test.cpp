#include "base/failure.h"
#include "patterns/fringes.h"
#include "patterns/method.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace vexo;

namespace {

std::vector<PatternFrame> frames_of(Method method)
{
    const std::vector<int>& periods = default_periods(method);
    if (method == Method::sgbm) return flat_frames(1024);
    return method == Method::gray_phase ? gray_phase_frames(1024, periods[0]) : multi_phase_frames(1024, periods);
}

/// The grey level as a multiple of the fringes' amplitude; rounding to 8 bits is half a grey level of 120.
double wave_at(const PatternFrame& frame, int x)
{
    return (frame.row.at<uchar>(0, x) - 127.5) / 120;
}
constexpr double rounding = 0.51 / 120;

std::string complaint(void (*check)())
{
    try {
        check();
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

} // namespace

TEST(Method, TableSaysWhichFramesThePatternsHave)
{
    for (const Method method : all_methods) {
        const std::vector<PatternFrame> frames = frames_of(method);
        EXPECT_EQ(method_named(name_of(method)), method);
        EXPECT_EQ(frames.size(), frame_count(method)) << name_of(method);
        std::vector<std::size_t> sets;
        for (std::size_t k = 0; k < frames.size(); ++k) {
            if (frames[k].period == 0) continue;
            if (frames[k].shift == 0) sets.push_back(k);
            EXPECT_EQ(frames[k].shift, static_cast<int>(k - sets.back())) << name_of(method) << ' ' << k;
            EXPECT_EQ(frames[k].period, default_periods(method)[sets.size() - 1]) << name_of(method) << ' ' << k;
        }
        EXPECT_EQ(sets, phase_sets(method)) << name_of(method);
    }
    for (const char* unknown : { "", "gray", "Gray-phase", "sgbm " })
        EXPECT_EQ(method_named(unknown), std::nullopt) << unknown;
}

TEST(Fringes, GrayCodeNumbersTheFringesAndTheyFollowTheirFormula)
{
    const std::vector<PatternFrame> frames = gray_phase_frames(1024, 8);
    for (int x = 0; x < 1024; ++x) {
        int code = 0, bit = 0;
        for (std::size_t k = 2; k < 9; ++k) {
            EXPECT_EQ(frames[k].bit, 8 - static_cast<int>(k));
            bit ^= frames[k].row.at<uchar>(0, x) / 255;
            code = 2 * code + bit;
        }
        ASSERT_EQ(code, x / 8) << "column " << x;
        for (int k = 0; k < 4; ++k) {
            const double wave = std::cos(2 * CV_PI * (x + 0.5) / 8 - k * CV_PI / 2);
            ASSERT_NEAR(wave_at(frames[9 + static_cast<std::size_t>(k)], x), wave, rounding) << "shift " << k;
        }
    }
}

TEST(Fringes, MultiPeriodFringesFollowTheirFormulaAndEndAtColumn912)
{
    const std::vector<PatternFrame> frames = multi_phase_frames(1024, { 16, 18, 21 });
    ASSERT_EQ(frames.size(), 14U);
    EXPECT_EQ(cv::countNonZero(frames[0].row), 0);
    EXPECT_EQ(cv::countNonZero(frames[1].row == 255), 912);
    for (std::size_t k = 1; k < frames.size(); ++k) {
        EXPECT_EQ(cv::countNonZero(frames[k].row.colRange(912, 1024)), 0) << "frame " << k;
        for (int x = 0; x < 912 && k > 1; ++x) {
            const double wave = -std::cos(2 * CV_PI * (x + 0.5) / frames[k].period + frames[k].shift * CV_PI / 2);
            ASSERT_NEAR(wave_at(frames[k], x), wave, rounding) << "frame " << k << ", column " << x;
        }
    }
    EXPECT_EQ(multi_phase_frames(640, { 16, 18, 21 })[1].row.cols, 640) << "a narrow projector is lit all over";
}

TEST(Fringes, PeriodsThatCannotBeDecodedAreRefusedWithTheReason)
{
    const struct {
        void (*check)();
        const char* why; ///< null: nothing is wrong
    } cases[] = { { [] { check_period(1024, 8); }, nullptr }, { [] { check_period(1024, 7); }, "need a period of 8" },
        { [] { check_period(64, 3); }, "4 to 512" }, { [] { check_period(64, 513); }, "4 to 512" },
        { [] { gray_phase_frames(64, 0); }, "1 projector px or more" },
        { [] {
             multi_phase_frames(64, { 9, 10, -1 });
         },
            "1 projector px or more" },
        { [] {
             check_periods({ 9, 10, 11 });
         },
            nullptr },
        { [] {
             check_periods({ 512, 511, 509 });
         },
            nullptr },
        { [] {
             check_periods({ 9, 10 });
         },
            "give three" },
        { [] { check_periods({}); }, "give three" },
        { [] {
             check_periods({ 9, 10, 3 });
         },
            "4 to 512" },
        { [] {
             check_periods({ 9, 10, 513 });
         },
            "4 to 512" },
        { [] {
             check_periods({ 16, 57, 48 });
         },
            "multiple is 912," } };
    for (const auto& c : cases) {
        const std::string said = complaint(c.check);
        EXPECT_EQ(said.empty(), c.why == nullptr) << said;
        if (c.why != nullptr) {
            EXPECT_NE(said.find(c.why), std::string::npos) << c.why << " in: " << said;
        }
    }
}
