#include "base/failure.h"
#include "host/captures/exposures.h"
#include "support/measuring.h"

#include <opencv2/imgcodecs.hpp>

#include <functional>

namespace {

using namespace vexo;
namespace fs = std::filesystem;

/// Small captures of the bust in stripes at 1/4, 1 and 4 times the light.
class ExposuresTest : public Measuring {
protected:
    ExposuresTest() { rig.toe_in_deg = 7.6; } // the same cameras when the scene moves

    static constexpr double exposures[3] = { 0.25, 1.0, 4.0 };

    CaptureFiles files_of(const std::string& name) const
    {
        const std::string at = folder / name;
        return { at, at + "/cam0", at + "/cam1", "", false };
    }

    /// Writes a capture, with exposure_ms if `timed`.
    CaptureFiles make(const std::string& name, double exposure, std::size_t index, bool timed = true)
    {
        sim::RigOptions options = sim::at_exposure(rig, exposure, index);
        options.image_size = { width, height };
        if (options.method == Method::gray_phase) options.fringe_period = 32;
        Rendered::write(folder / name, "albedo", options);
        if (!timed) fs::remove(folder / (name + "/capture.json"));
        return files_of(name);
    }

    std::vector<CaptureFiles> make_all(bool timed = true)
    {
        std::vector<CaptureFiles> sets;
        for (std::size_t i = 0; i < 3; ++i)
            sets.push_back(make("e" + std::to_string(i), exposures[i], i, timed));
        return sets;
    }

    static Capture merged(const std::vector<CaptureFiles>& sets)
    {
        return read_exposures(sets, choose_method(sets[0]));
    }

    /// What refuses them; "" of what is accepted.
    static std::string refusal(const std::vector<CaptureFiles>& sets)
    {
        try {
            merged(sets);
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "";
    }

    static bool says(const Capture& capture, const std::string& name, Weight least = Weight::good)
    {
        const auto& notes = capture.frames.notes;
        return std::any_of(
            notes.begin(), notes.end(), [&](const Finding& f) { return f.name == name && f.weight >= least; });
    }
};

TEST_F(ExposuresTest, EachPixelHasAllFramesOfTheLongestExposureThatClipsNoneOfThemElseOfTheShortest)
{
    const std::vector<CaptureFiles> sets = make_all();
    const Capture whole = merged({ sets[1], sets[2], sets[0] }); // in any order
    ASSERT_TRUE(whole.exposures);
    std::vector<Capture> single;
    for (std::size_t i = 0; i < 3; ++i) {
        single.push_back(read_capture(sets[2 - i], whole.choice));
        EXPECT_EQ(whole.exposures->sets[i].folder, sets[2 - i].folder);
    }
    for (std::size_t c = 0; c < 2; ++c) {
        std::vector<cv::Mat> brightest;
        for (const Capture& one : single) {
            brightest.push_back(one.frames.frames[c][0].clone());
            for (const cv::Mat& frame : one.frames.frames[c])
                cv::max(brightest.back(), frame, brightest.back());
        }
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                std::size_t longest = 0;
                while (longest < 2 && brightest[longest].at<uchar>(y, x) >= 250)
                    ++longest;
                ASSERT_EQ(whole.exposures->taken[c].at<uchar>(y, x), longest);
                for (std::size_t k = 0; k < whole.frames.frames[c].size(); ++k)
                    ASSERT_EQ(
                        whole.frames.frames[c][k].at<uchar>(y, x), single[longest].frames.frames[c][k].at<uchar>(y, x));
            }
    }
}

TEST_F(ExposuresTest, OrderAndFactorsAreFoundWithOrWithoutTimesAndTimesThatTheFramesBelieAreSaidOrRefused)
{
    const std::vector<CaptureFiles> sets = make_all(false);
    const Capture whole = merged(sets);
    EXPECT_FALSE(whole.exposures->ordered_by_time);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(whole.exposures->sets[i].folder, sets[2 - i].folder);
        // Thousands of pixels, whose contrast has a noise of some per cent each.
        EXPECT_NEAR(whole.exposures->sets[i].factor * std::pow(4.0, i), 1.0, 0.02);
    }
    const auto say = [&](std::size_t i, const char* ms) {
        EXPECT_TRUE(write_file(
            sets[i].folder + "/capture.json", std::string(R"({"method": "gray-phase", "exposure_ms": )") + ms + "}"));
    };
    say(0, "1"), say(1, "8"), say(2, "16");
    EXPECT_TRUE(merged(sets).exposures->ordered_by_time);
    EXPECT_TRUE(says(merged(sets), "exposure-times"));
    say(0, "40");
    EXPECT_NE(refusal(sets).find(sets[2].folder + ": exposure_ms 16.000 is shorter"), std::string::npos)
        << refusal(sets);
}

TEST_F(ExposuresTest, OfBothMethodsMoreIsMeasuredThanOfAnySingleExposureAndSigmaStaysRight)
{
    for (const Method method : { Method::gray_phase, Method::multi_phase }) {
        rig.method = method;
        const std::vector<CaptureFiles> sets = make_all();
        int most = 0;
        for (const CaptureFiles& files : sets) {
            const Capture one = read_capture(files, choose_method(files));
            most = std::max(most, measure(one, stereo(one), {}).cloud.count);
        }
        const Capture whole = merged(sets);
        const Measured m = measure(whole, stereo(whole), {});
        EXPECT_GT(m.cloud.count, 1.2 * most) << name_of(method);
        // The camera's noise, whatever the exposure: c0 of read noise and rounding, k of shot noise.
        const double read = 0.625 * rig.noise, shot = (1.0 - 0.625 * 0.625) * rig.noise * rig.noise / 128.0;
        for (const NoiseModel& noise : m.precision.noise)
            EXPECT_NEAR((noise.c0 + 100.0 * noise.k) / (read * read + 1.0 / 12.0 + 96.0 * shot), 1.0, 0.05);
        for (const Finding& finding : m.findings) // rows apart: upright stripes a dozen px wide show no rows
            EXPECT_TRUE(finding.weight < Weight::worse || finding.name == "rows" || finding.name == "projector")
                << finding.name << ": " << finding.text;
    }
}

TEST_F(ExposuresTest, WhatIsNoExposureOfTheSameSceneIsRefusedByTheNameOfItsFolder)
{
    const std::vector<CaptureFiles> sets = make_all();
    const auto remake = [&](const std::function<void()>& change) {
        const sim::RigOptions before = rig;
        change();
        const CaptureFiles odd = make("odd", 1.0, 1);
        rig = before;
        return odd;
    };
    const std::vector<std::pair<const char*, std::function<void()>>> cases {
        { "moved", [&] { rig.distance_mm += 2.0; } },
        { "fringes exchanged",
            [&] {
                rig.swapped = { 10, 11 };
            } },
        { "planes exchanged",
            [&] {
                rig.swapped = { 5, 7 };
            } },
        { "dark and lit exchanged",
            [&] {
                rig.swapped = { 0, 1 };
            } },
        { "other method", [&] { rig.method = Method::multi_phase; } },
    };
    for (const auto& [what, change] : cases) {
        fs::remove_all(folder / "odd");
        const CaptureFiles odd = remake(change);
        const std::string refused = refusal({ sets[0], odd, sets[2] });
        EXPECT_EQ(refused.find(odd.folder + ": is "), 0U) << what << ": " << refused;
        EXPECT_NE(refusal({ sets[0], odd }), "") << what;
    }
    for (const std::string& camera : { sets[1].cam0, sets[1].cam1 })
        for (const auto& entry : fs::directory_iterator(camera)) {
            cv::Mat frame = cv::imread(entry.path().string(), cv::IMREAD_GRAYSCALE);
            cv::imwrite(entry.path().string(), frame.colRange(0, width - 1));
        }
    EXPECT_EQ(refusal(sets).find(sets[1].folder + ": its frames are 319 x 256"), 0U) << refusal(sets);
}

TEST_F(ExposuresTest, NoiseIsNoContradictionButAnotherGainAndAnUncheckedExposureAreSaid)
{
    const auto dim_and_usual = [&](double noise) {
        rig.noise = noise;
        const Capture whole = merged({ make("dim", 0.25, 0), make("usual", 1.0, 1) });
        for (const char* name : { "exposures-differ", "exposures-noise", "exposures-unchecked" })
            EXPECT_FALSE(says(whole, name)) << name << " at noise " << noise;
    };
    dim_and_usual(1.6);
    dim_and_usual(4.0);
    rig.noise = 1.6;
    EXPECT_TRUE(says(merged({ files_of("usual"), make("quiet", 0.25, 0) }), "exposures-noise"));
    // Nothing that is unclipped at 4 is seen well at 1/16.
    const Capture apart = merged({ make("far", 0.0625, 3), make("light", 4.0, 2) });
    EXPECT_TRUE(says(apart, "exposures-unchecked", Weight::spoils));
}

TEST_F(ExposuresTest, AnExposureThatAddsNothingIsNamedAndDeepGreyValuesAreScaledAlike)
{
    const std::vector<CaptureFiles> sets = make_all();
    const CaptureFiles twin = make("twin", 0.25, 5);
    const Capture whole = merged({ sets[0], sets[2], twin });
    EXPECT_TRUE(says(whole, "exposure-unused"));
    EXPECT_FALSE(says(merged(sets), "exposure-unused"));

    // 12 bits: the short exposure alone would pass for one of 10.
    for (std::size_t i : { 0U, 2U })
        for (const std::string& camera : { sets[i].cam0, sets[i].cam1 })
            for (const auto& entry : fs::directory_iterator(camera)) {
                cv::Mat frame = cv::imread(entry.path().string(), cv::IMREAD_GRAYSCALE);
                frame.convertTo(frame, CV_16U, 4095.0 / 255.0 * (i == 0 ? 0.2 : 1.0));
                cv::imwrite(entry.path().string(), frame);
            }
    const Capture deep = merged({ sets[0], sets[2] });
    EXPECT_EQ(deep.frames.bits, 12);
    EXPECT_NEAR(deep.exposures->sets[1].factor, 0.2 / 16.0, 0.001); // times 0.25 / 4
    EXPECT_NE(refusal({ sets[0], sets[1] }), "");                   // 8 bits beside 12
}

} // namespace
