#include "support/measuring.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace vexo;

TEST_F(Measuring, GivesInTwoThreadsAtOnceTheBytesThatEachGivesAloneAndLeavesTheFramesAlone)
{
    const Capture captures[] = { capture(Method::gray_phase), capture(Method::multi_phase) };
    const cv::Mat lit = captures[0].frames.frames[0][1].clone();
    std::vector<unsigned char> alone[2], together[2];
    for (std::size_t i = 0; i < 2; ++i)
        alone[i] = bytes_of(measure(captures[i], stereo(captures[i]), {}));
    ASSERT_NE(alone[0], alone[1]);
    for (int round = 0; round < 3; ++round) {
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < 2; ++i)
            threads.emplace_back([&, i] { together[i] = bytes_of(measure(captures[i], stereo(captures[i]), {})); });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_TRUE(together[0] == alone[0] && together[1] == alone[1]) << "round " << round;
    }
    EXPECT_EQ(cv::norm(lit, captures[0].frames.frames[0][1], cv::NORM_INF), 0.0);
}

TEST_F(Measuring, EndsAtAnyStepWhenItsCallerSaysSo)
{
    const Capture scan = capture(Method::gray_phase);
    const Stereo pair = stereo(scan);
    int steps = 0;
    measure(scan, pair, {}, [&](const std::string&) { return ++steps > 0; });
    EXPECT_EQ(steps, measure_steps);
    for (int last = 1; last <= steps; ++last) {
        int step = 0;
        EXPECT_THROW(measure(scan, pair, {}, [&](const std::string&) { return ++step < last; }), Stopped) << last;
        EXPECT_EQ(step, last);
    }
}

TEST_F(Measuring, SpoilsWithCamerasExchangedAndNotAsTheyAre)
{
    const std::pair<Method, const char*> captures[] = { { Method::gray_phase, "plane" },
        { Method::gray_phase, "steps" }, { Method::multi_phase, "plane" }, { Method::sgbm, "bust" } };
    for (const auto& [method, scene] : captures) {
        const std::string what = scene + std::string(" ") + name_of(method) + ": ";
        Capture scan = capture(method, scene);
        const Stereo pair = stereo(scan);
        const Measured right = measure(scan, pair, {});
        EXPECT_NE(heaviest(right.findings), Weight::spoils) << what << sentence(right.findings.back());
        std::swap(scan.frames.frames[0], scan.frames.frames[1]);
        const Measured wrong = measure(scan, pair, {});
        EXPECT_EQ(heaviest(wrong.findings), Weight::spoils) << what << wrong.cloud.count;
        for (const Finding& finding : wrong.findings)
            EXPECT_TRUE(finding.weight != Weight::spoils || !finding.advice.empty()) << what << finding.text;
    }
}

TEST_F(Measuring, SpoilsWhenNextToNothingOfTheLitPixelsIsMeasured)
{
    const Capture scan = capture(Method::gray_phase, "plane", 2.8);
    MeasureRequest request;
    request.cleaning = Cleaning::off; // islands are taken out
    const Measured measured = measure(scan, stereo(scan), request);
    ASSERT_GT(measured.cloud.count, 0);
    EXPECT_LT(measured.cloud.count, 0.01 * width * height); // else the capture does not ask what is meant
    const Finding& coverage = measured.findings.back();
    EXPECT_TRUE(coverage.name == "coverage" && coverage.weight == Weight::spoils) << sentence(coverage);
    EXPECT_NE(coverage.advice.find("focus"), std::string::npos) << coverage.advice;
}

} // namespace
