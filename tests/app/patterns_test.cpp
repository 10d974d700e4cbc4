#include "program.h"

#include "sim/pattern.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>

namespace {

using Json = nlohmann::json;
using program::Folder;
using program::Outcome;

constexpr double pi = 3.14159265358979323846;

std::vector<cv::Mat> frames_of(const Json& json, const std::string& folder)
{
    std::vector<cv::Mat> frames;
    for (const Json& frame : json["frames"])
        frames.push_back(cv::imread(folder + "/" + frame["file"].get<std::string>(), cv::IMREAD_UNCHANGED));
    return frames;
}

/// The first row, after checking that all rows are the same.
cv::Mat row_of(const cv::Mat& frame, cv::Size size)
{
    EXPECT_EQ(frame.size(), size);
    EXPECT_EQ(frame.type(), CV_8UC1);
    EXPECT_EQ(cv::norm(frame, cv::repeat(frame.row(0), frame.rows, 1), cv::NORM_INF), 0);
    return frame.row(0);
}

void expect_pattern(const std::vector<cv::Mat>& frames, const vexo::sim::Pattern& rig, cv::Size size)
{
    ASSERT_EQ(frames.size(), rig.frames.size());
    for (std::size_t k = 0; k < frames.size(); ++k) {
        const cv::Mat row = row_of(frames[k], size);
        for (int x = 0; x < size.width; ++x)
            ASSERT_EQ(row.at<uchar>(0, x), rig.frames[k][static_cast<std::size_t>(x)])
                << "frame " << k << ", column " << x;
    }
}

TEST(Patterns, GrayCodeAndFringesFollowTheirFormulasAndAreWhatTheVirtualRigProjects)
{
    const Folder work;
    const Outcome made = program::run(work, "patterns --json --projector 1024x48 --out " + work / "p");
    ASSERT_EQ(made.code, 0) << made.err;
    const Json json = Json::parse(made.out);
    const std::vector<cv::Mat> frames = frames_of(json, work / "p");
    expect_pattern(frames, vexo::sim::gray_phase_pattern(1024, 8), { 1024, 48 });
    for (int x = 0; x < 1024; ++x) {
        int code = 0, bit = 0;
        for (std::size_t k = 2; k < 9; ++k) {
            bit ^= frames[k].at<uchar>(0, x) / 255;
            code = 2 * code + bit;
        }
        ASSERT_EQ(code, x / 8) << "column " << x;
        for (std::size_t k = 0; k < 4; ++k) {
            const double wave = std::cos(2 * pi * (x + 0.5) / 8 - static_cast<double>(k) * pi / 2);
            ASSERT_NEAR((frames[9 + k].at<uchar>(0, x) - 127.5) / 120, wave, 0.51 / 120) << "frame " << 9 + k;
        }
    }
    EXPECT_EQ(json["frames"][5]["bit"], 3);
    EXPECT_EQ(json["frames"][11]["shift_deg"], 180);
    EXPECT_EQ(Json::parse(program::read(work / "p/patterns.json")), json);
    EXPECT_FALSE(cv::imread(work / "p/contact_sheet.png").empty());
}

TEST(Patterns, MultiPeriodFringesFollowTheirFormulaAndEndAtColumn912)
{
    const Folder work;
    const Outcome made = program::run(
        work, "patterns --json --method multi-phase --periods 16,18,21 --projector 1024x32 --out " + work / "p");
    ASSERT_EQ(made.code, 0) << made.err;
    const Json json = Json::parse(made.out);
    const std::vector<cv::Mat> frames = frames_of(json, work / "p");
    const int periods[] = { 16, 18, 21 };
    expect_pattern(frames, vexo::sim::multi_phase_pattern(1024, { 16, 18, 21 }), { 1024, 32 });
    for (std::size_t k = 1; k < frames.size(); ++k)
        EXPECT_EQ(cv::norm(frames[k].colRange(912, 1024), cv::NORM_INF), 0) << "frame " << k;
    for (std::size_t f = 0; f < 3; ++f)
        for (std::size_t s = 0; s < 4; ++s)
            for (int x = 0; x < 912; ++x) {
                const double wave = -std::cos(2 * pi * (x + 0.5) / periods[f] + static_cast<double>(s) * pi / 2);
                ASSERT_NEAR((frames[2 + 4 * f + s].at<uchar>(0, x) - 127.5) / 120, wave, 0.51 / 120) << "column " << x;
            }
    EXPECT_EQ(json["lit_columns"], 912);
    EXPECT_EQ(json["frames"][7]["period"], 18);
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
    const vexo::sim::Pattern linear = vexo::sim::gray_phase_pattern(512, 8);
    for (std::size_t k = 0; k < frames.size(); ++k)
        for (int x = 0; x < 512; ++x) {
            const double light = 255 * std::pow(frames[k].at<uchar>(0, x) / 255.0, 2.2);
            ASSERT_NEAR(light, linear.frames[k][static_cast<std::size_t>(x)], 1.2) << "frame " << k;
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
        { "--period 1", "--period" }, { "--method multi-phase --periods 8,9,10", "least common multiple is 360" },
        { "--method multi-phase --periods 9,10", "three" }, { "--method multi-phase --periods 9,10,2", "period" },
        { "--projector 1024", "--projector" }, { "--projector 1024x0", "--projector" },
        { "--projector 99999999x10", "--projector" }, { "--projector axb", "--projector" } };
    for (const auto& c : cases)
        program::expect_refused(work, std::string("patterns ") + c.options + " --out " + work / "p", c.why, work / "p");
}

} // namespace
