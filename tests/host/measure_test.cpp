#include "support/measuring.h"

#include <gtest/gtest.h>

#include <algorithm>
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

TEST_F(Measuring, ChoosesLimitsByTheNoiseAndKeepsWhatIsGiven)
{
    for (const Method method : { Method::gray_phase, Method::multi_phase }) {
        Capture scan;
        int contrast = 0;
        double modulation = 0, difference = 0;
        for (const double noise : { 0.8, 2.0 }) { // from the least that is asked to nearly the most
            rig.noise = noise;
            scan = capture(method);
            const Measured m = measure(scan, stereo(scan), {});
            const Json record = to_json(m.record);
            EXPECT_GT(record["min_contrast"], contrast) << noise;
            EXPECT_GT(m.min_modulation, modulation) << noise;
            EXPECT_GT(record["max_phase_diff"], difference) << noise;
            EXPECT_EQ(m.origins.max_phase_diff, Origin::measured);
            EXPECT_EQ(m.origins.min_contrast, Origin::measured);
            contrast = record["min_contrast"];
            modulation = m.min_modulation;
            difference = record["max_phase_diff"];
        }
        MeasureRequest request;
        request.min_contrast = 33;
        request.min_modulation = 7.5;
        request.max_phase_diff = 0.625;
        request.fit_points = 3;
        const Measured m = measure(scan, stereo(scan), request);
        const Json record = to_json(m.record);
        EXPECT_EQ(record["min_contrast"], 33);
        EXPECT_EQ(m.min_modulation, 7.5);
        EXPECT_EQ(record["max_phase_diff"], 0.625);
        EXPECT_EQ(record["fit_points"], 3);
        for (const Origin origin :
            { m.origins.max_phase_diff, m.origins.min_contrast, m.origins.min_modulation, m.origins.fit_points })
            EXPECT_EQ(origin, Origin::given);
    }
}

TEST_F(Measuring, MeasuresADarkSurfaceThatItsNoiseAllowsToMeasure)
{
    rig.exposure = 0.3;
    for (const Method method : { Method::gray_phase, Method::multi_phase }) {
        const Capture scan = capture(method, "plane");
        MeasureRequest usual; // what is asked where the noise is not known
        usual.min_contrast = usual_light().contrast * 4;
        const Measured bright = measure(scan, stereo(scan), usual), all = measure(scan, stereo(scan), {});
        EXPECT_GT(all.cloud.count, 0.9 * static_cast<double>(lit_pixels(all.causes))) << name_of(method);
        EXPECT_LT(bright.cloud.count, 0.5 * all.cloud.count) << name_of(method); // or the capture is not dark
        EXPECT_EQ(all.findings.end(), std::find_if(all.findings.begin(), all.findings.end(), [](const Finding& f) {
            return f.weight == Weight::spoils;
        }));
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
    const Capture scan = capture(Method::gray_phase, "plane", 3.08);
    MeasureRequest request;
    request.cleaning = Cleaning::off; // islands are taken out
    request.refine = false;           // a second decoding finds more
    const Measured measured = measure(scan, stereo(scan), request);
    ASSERT_GT(measured.cloud.count, 0);
    EXPECT_LT(measured.cloud.count, 0.01 * width * height); // else the capture does not ask what is meant
    const Finding& coverage = measured.findings.back();
    EXPECT_TRUE(coverage.name == "coverage" && coverage.weight == Weight::spoils) << sentence(coverage);
    EXPECT_NE(coverage.advice.find("focus"), std::string::npos) << coverage.advice;
}

} // namespace
