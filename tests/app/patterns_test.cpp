#include "program.h"

#include "patterns/fringes.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>

namespace {

using Json = nlohmann::json;
using program::Folder;
using program::Outcome;

std::vector<cv::Mat> frames_of(const Json& json, const std::string& folder)
{
    std::vector<cv::Mat> frames;
    for (const Json& frame : json["frames"])
        frames.push_back(cv::imread(folder + "/" + frame["file"].get<std::string>(), cv::IMREAD_UNCHANGED));
    return frames;
}

TEST(Patterns, FilesShowTheFramesOfTheMethodInEveryRowAndTheJsonSaysWhichTheyAre)
{
    const struct {
        const char* options;
        std::vector<vexo::PatternFrame> frames;
        int lit_columns;
    } cases[] = { { "", vexo::gray_phase_frames(1024, 8), 1024 },
        { "--method multi-phase --periods 16,18,21", vexo::multi_phase_frames(1024, { 16, 18, 21 }), 912 } };
    for (const auto& c : cases) {
        const Folder work;
        const Outcome made
            = program::run(work, std::string("patterns --json --projector 1024x48 --out ") + (work / "p ") + c.options);
        ASSERT_EQ(made.code, 0) << made.err;
        const Json json = Json::parse(made.out);
        const std::vector<cv::Mat> frames = frames_of(json, work / "p");
        ASSERT_EQ(frames.size(), c.frames.size());
        for (std::size_t k = 0; k < frames.size(); ++k) {
            ASSERT_EQ(frames[k].size(), cv::Size(1024, 48));
            ASSERT_EQ(frames[k].type(), CV_8UC1);
            EXPECT_EQ(cv::norm(frames[k], cv::repeat(c.frames[k].row, 48, 1), cv::NORM_INF), 0) << "frame " << k;
            const Json& frame = json["frames"][k];
            EXPECT_EQ(frame["what"], c.frames[k].what);
            EXPECT_EQ(frame.value("bit", -1), c.frames[k].bit);
            EXPECT_EQ(frame.value("period", 0), c.frames[k].period);
            EXPECT_EQ(frame.value("shift_deg", 0), 90 * c.frames[k].shift);
        }
        EXPECT_EQ(json["lit_columns"], c.lit_columns);
        EXPECT_EQ(Json::parse(program::read(work / "p/patterns.json")), json);
        EXPECT_FALSE(cv::imread(work / "p/contact_sheet.png").empty());
    }
}

// After gamma 2.2 a corrected frame is the linear one, but for the rounding of the corrected grey: near black one step
// of grey is little light, near white 2.2 times its own.
TEST(Patterns, GammaTableMakesAProjectorLinear)
{
    const Folder work;
    Json table { { "gamma", 2.2 } };
    for (int i = 0; i < 256; ++i)
        table["table"].push_back(static_cast<int>(std::lround(255 * std::pow(i / 255.0, 1 / 2.2))));
    program::write(work / "gamma.json", table.dump());
    const Outcome made = program::run(
        work, "patterns --json --projector 512x16 --out " + work / "p" + " --gamma-table " + work / "gamma.json");
    ASSERT_EQ(made.code, 0) << made.err;
    const std::vector<cv::Mat> frames = frames_of(Json::parse(made.out), work / "p");
    const std::vector<vexo::PatternFrame> linear = vexo::gray_phase_frames(512, 8);
    for (std::size_t k = 0; k < frames.size(); ++k)
        for (int x = 0; x < 512; ++x) {
            const double light = 255 * std::pow(frames[k].at<uchar>(0, x) / 255.0, 2.2);
            ASSERT_NEAR(light, linear[k].row.at<uchar>(0, x), 1.2) << "frame " << k;
        }
    for (const char* bad : { "", "{}", "[1]", "{\"gamma\": 2, \"table\": [1, 2]}", "not json" }) {
        program::write(work / "bad.json", bad);
        program::expect_refused(
            work, "patterns --out " + work / "q" + " --gamma-table " + work / "bad.json", "bad.json", work / "q");
    }
}

TEST(Patterns, WhatCannotBeDecodedIsRefusedWithItsReason)
{
    const Folder work;
    const struct {
        const char *options, *why;
    } cases[] = { { "--steps 3", "sqrt(3)" }, { "--steps 5", "four" }, { "--period 7", "128 fringes" },
        { "--method multi-phase --periods 8,9,10", "least common multiple is 360" },
        { "--projector 1024", "--projector" }, { "--projector 1024x0", "--projector" },
        { "--projector 99999999x10", "--projector" }, { "--projector axb", "--projector" } };
    for (const auto& c : cases)
        program::expect_refused(work, std::string("patterns ") + c.options + " --out " + work / "p", c.why, work / "p");
}

} // namespace
