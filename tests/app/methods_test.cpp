#include "program.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using program::Outcome;

/// The same small plane, captured for each method, once.
class Methods : public program::Suite {
protected:
    static void SetUpTestSuite()
    {
        Suite::SetUpTestSuite();
        simulated = true;
        for (const char* options : { "multi-phase", "sgbm", "gray-phase --period 32" }) {
            const std::string method(options), out = at(method.substr(0, method.find(' ')));
            simulated = simulated
                && run("simulate plane --size 320x256 --quiet --method " + method + " --out " + out).code == 0;
        }
    }
    void SetUp() override { ASSERT_TRUE(simulated); }

    /// The report of a measurement that must succeed.
    static Json measure(const std::string& arguments, const std::string& out)
    {
        return told("measure", arguments + " --out " + at(out));
    }
    static Json compare(const std::string& result, const std::string& scan)
    {
        return told("compare", at(result) + " " + at(scan));
    }

    inline static bool simulated = false;
};

long long pixels_told(const Json& report)
{
    long long sum = report["pixels"]["measured"];
    for (const auto& cause : report["pixels"]["not_measured"])
        sum += cause.get<long long>();
    return sum;
}

cv::Mat frame(const std::string& scan, int camera, int index)
{
    return cv::imread(program::frame_of(scan, camera, index), cv::IMREAD_GRAYSCALE);
}

// --- a decoder of the test's own -------------------------------------------------------------------

constexpr double pi = 3.14159265358979323846;

/// Multi-period phase, -1/(2T) to 1 - 1/(2T), of I_s = A - B cos(2 pi (x + 0.5) / T + s pi / 2).
cv::Mat multi_phase(const std::string& scan, int camera, int first, double period)
{
    const cv::Mat_<uchar> I[4] = { frame(scan, camera, first), frame(scan, camera, first + 1),
        frame(scan, camera, first + 2), frame(scan, camera, first + 3) };
    cv::Mat_<float> phase(I[0].size());
    for (int y = 0; y < phase.rows; ++y)
        for (int x = 0; x < phase.cols; ++x)
            phase(y, x) = static_cast<float>(
                (std::atan2(I[3](y, x) - I[1](y, x), I[0](y, x) - I[2](y, x)) + pi - pi / period) / (2 * pi));
    return phase;
}

/// Gray code + phase, 0 to 1, of P_k = A + B cos(2 pi (x + 0.5) / T - k pi / 2).
cv::Mat gray_phase(const std::string& scan, int camera)
{
    const cv::Mat_<uchar> P[4]
        = { frame(scan, camera, 9), frame(scan, camera, 10), frame(scan, camera, 11), frame(scan, camera, 12) };
    cv::Mat_<float> phase(P[0].size());
    for (int y = 0; y < phase.rows; ++y)
        for (int x = 0; x < phase.cols; ++x)
            phase(y, x)
                = static_cast<float>((pi - std::atan2(P[1](y, x) - P[3](y, x), P[2](y, x) - P[0](y, x))) / (2 * pi));
    return phase;
}

cv::Mat gray_periods(const std::string& scan, int camera)
{
    cv::Mat middle, number = cv::Mat::zeros(frame(scan, camera, 0).size(), CV_8U), bit = number.clone();
    cv::addWeighted(frame(scan, camera, 0), 0.5, frame(scan, camera, 1), 0.5, 0.0, middle);
    for (int plane = 0; plane < 7; ++plane) {
        bit ^= frame(scan, camera, 2 + plane) > middle; // binary digit = xor of the gray digits so far
        number = number * 2 + bit / 255;
    }
    return number;
}

void decode(const std::string& scan, const std::string& to, bool multi)
{
    for (int camera = 0; camera < 2; ++camera) {
        const std::string folder = to + "/cam" + std::to_string(camera) + "/";
        fs::create_directories(folder);
        cv::imwrite(folder + "black.png", frame(scan, camera, 0));
        cv::imwrite(folder + "white.png", frame(scan, camera, 1));
        for (int f = 0; multi && f < 3; ++f)
            cv::imwrite(folder + "phase" + std::to_string(f) + ".tiff", multi_phase(scan, camera, 2 + 4 * f, 9.0 + f));
        if (multi) continue;
        cv::imwrite(folder + "phase.tiff", gray_phase(scan, camera));
        cv::imwrite(folder + "period.png", gray_periods(scan, camera));
    }
    fs::copy_file(scan + "/cameras.yaml", to + "/cameras.yaml", fs::copy_options::overwrite_existing);
}

// --- tests -----------------------------------------------------------------------------------------

TEST_F(Methods, MultiPhasePlaneIsMeasuredWholeAndAsExactlyAsItsNoiseAllows)
{
    const Json report = measure(at("multi-phase"), "r_multi");
    EXPECT_EQ(report["method"], "multi-phase");
    EXPECT_EQ(report["chosen"]["min_contrast"], "measured");
    EXPECT_EQ(pixels_told(report), 320 * 256);
    EXPECT_LT(report["fringes"]["cam0"]["expected_loss"].get<double>(), 1e-4);

    const Json c = compare("r_multi", "multi-phase");
    EXPECT_GE(c["coverage"]["inner_coverage"].get<double>(), 0.99);
    EXPECT_NEAR(c["sigma"]["z_rms"].get<double>(), 1.0, 0.1);
    EXPECT_LE(c["error"]["outliers"].get<double>(), 0.0005);
}

TEST_F(Methods, BlockMatchingFindsItsRangeAndTellsWhyPixelsLack)
{
    const Json report = measure(at("sgbm"), "r_sgbm");
    EXPECT_EQ(report["method"], "sgbm");
    EXPECT_EQ(pixels_told(report), 320 * 256);
    EXPECT_EQ(report["parameters"]["numDisparities"].get<int>() % 16, 0);
    const Json c = compare("r_sgbm", "sgbm");
    EXPECT_GE(c["coverage"]["inner_coverage"].get<double>(), 0.9);
    EXPECT_FALSE(c.contains("predicted_noise") || c.contains("sigma"));
    EXPECT_NE(report["sigma"]["why_none"], "");
    // 1 / 16 px is 0.3 mm at this size; half of a good match's errors lie within a few of them
    EXPECT_LT(std::abs(c["error"]["median"].get<double>()), 0.5);

    // Depths 550 to 650 mm are disparities of -23 to -3 px or so, rounded to multiples of 16.
    const Json given = measure(at("sgbm") + " --depth 550:650", "r_given")["parameters"];
    EXPECT_EQ(given["minDisparity"].get<int>() % 16, 0);
    EXPECT_EQ(given["numDisparities"].get<int>() % 16, 0);
    EXPECT_LE(given["numDisparities"].get<int>(), 64);
    EXPECT_EQ(measure(at("sgbm") + " --disparity -32:0 --num-disparities 48 --block 7",
                  "r_given")["parameters"]["numDisparities"],
        48);
}

TEST_F(Methods, IsRecognisedByTheDescriptionElseByTheNumberOfPictures)
{
    EXPECT_EQ(measure(at("multi-phase"), "r")["recognised_by"], "capture.json");
    for (const auto& [name, pictures] : { std::pair("multi-phase", "14 pictures of each camera"),
             std::pair("gray-phase", "13 pictures of each camera"), std::pair("sgbm", "1 picture of each camera") }) {
        const std::string scan = copy(name, "bare");
        fs::remove(scan + "/capture.json");
        EXPECT_EQ(measure(scan, "r")["recognised_by"], "scene.json");
        fs::remove(scan + "/scene.json");
        const Json report = measure(scan, "r");
        EXPECT_EQ(report["method"], name);
        EXPECT_EQ(report["recognised_by"], pictures);
    }
    const std::string scan = copy("multi-phase", "bare");
    fs::remove(scan + "/capture.json");
    program::write(scan + "/scene.json", R"({"method": ["no"], "periods": "none"})"); // tells nothing: passed over
    EXPECT_EQ(measure(scan, "r")["method"], "multi-phase");
    program::write(scan + "/patterns.json", R"({"method": "multi-phase", "periods": [9, 10, 11]})");
    EXPECT_EQ(measure(scan, "r")["recognised_by"], "patterns.json");
}

TEST_F(Methods, DecodedMapsGiveTheCloudOfTheFramesTheyWereDecodedFrom)
{
    for (const std::string method : { "multi-phase", "gray-phase" }) {
        const std::string maps = at("maps_" + method);
        decode(at(method), maps, method == "multi-phase");
        const Json frames = measure("--no-refine --clean off " + at(method), "r_frames"),
                   decoded = measure("--decoded --clean off " + maps, "r_maps");
        EXPECT_EQ(decoded["method"], method);
        EXPECT_NE(decoded["sigma"]["why_none"], "");
        EXPECT_EQ(pixels_told(decoded), 320 * 256);
        // The host masks weak fringes only in frames, and rounds phases in double: a few pixels differ.
        EXPECT_NEAR(decoded["pixels"]["share"].get<double>(), frames["pixels"]["share"].get<double>(), 0.005);
        const cv::Mat a = cv::imread(at("r_frames/depth.tiff"), cv::IMREAD_UNCHANGED);
        const cv::Mat b = cv::imread(at("r_maps/depth.tiff"), cv::IMREAD_UNCHANGED);
        int far = 0;
        for (int y = 0; y < a.rows; ++y)
            for (int x = 0; x < a.cols; ++x)
                far += std::abs(a.at<float>(y, x) - b.at<float>(y, x)) > 0.01F ? 1 : 0;
        EXPECT_LE(far, 80) << method << ": 0.1 % of the pixels, where a neighbour decoded differently";
    }
}

TEST_F(Methods, PixelsWithoutAPeriodOrAPhaseAreNotMeasuredAndHarmNobody)
{
    const std::string maps = at("holes");
    decode(at("gray-phase"), maps, false);
    cv::Mat period, phase = cv::imread(maps + "/cam0/phase.tiff", cv::IMREAD_UNCHANGED);
    cv::imread(maps + "/cam0/period.png", cv::IMREAD_GRAYSCALE).convertTo(period, CV_32F);
    fs::remove(maps + "/cam0/period.png");
    period(cv::Rect(100, 100, 40, 10)).setTo(-1);
    period(cv::Rect(100, 110, 40, 10)).setTo(1e30);
    phase(cv::Rect(100, 120, 40, 10)).setTo(std::nanf(""));
    cv::imwrite(maps + "/cam0/period.tiff", period);
    cv::imwrite(maps + "/cam0/phase.tiff", phase);
    const Json report = measure("--decoded " + maps, "r_holes");
    EXPECT_EQ(pixels_told(report), 320 * 256);
    EXPECT_GE(report["pixels"]["not_measured"]["removed_by_unwrapping"].get<int>(), 1200);
    EXPECT_LE(report["pixels"]["not_measured"]["removed_by_unwrapping"].get<int>(), 2400);
}

TEST_F(Methods, WhatAMethodCannotDoIsRefusedInOneLine)
{
    const std::string multi = "measure " + at("multi-phase"), gray = "measure " + at("gray-phase"),
                      blocks = "measure " + at("sgbm"), out = " --out " + at("left");
    const std::string odd = copy("gray-phase", "odd");
    fs::remove(odd + "/scene.json");
    fs::remove(odd + "/capture.json");
    fs::remove(odd + "/cam0/frame12.png");
    const struct {
        std::string arguments, expected;
    } cases[] = {
        { multi + " --steps 3", "0.8 rad" },
        { multi + " --periods 8,9,10", "least common multiple is 360" },
        { multi + " --anchor 3", "--anchor: has no meaning for the method multi-phase" },
        { gray + " --periods 9,10,11", "--periods: has no meaning" },
        { gray + " --method multi-phase", "13 pictures found, frame13 is missing; the method needs 14" },
        { gray + " --method sgbm", "13 pictures found; the method needs 1" },
        { gray + " --decoded", "black.png: there is no such file" },
        { blocks + " --fit-points 3", "--fit-points: has no meaning for the method sgbm" },
        { blocks + " --num-disparities 40", "numDisparities must be a multiple of 16" },
        { blocks + " --block 4", "blockSize must be odd" },
        { blocks + " --depth 1:2", "more than block matching can hold" },
        { blocks + " --disparity -3000:0", "more than block matching can hold" },
        { "measure " + odd, "12 pictures fit no method" },
        { "measure " + odd + " --method gray-phase", "frame12 is missing" },
    };
    for (const auto& c : cases)
        program::expect_refused(*work, c.arguments + out, c.expected, at("left"));
    const auto nothing = run(blocks + " --disparity 320:400" + out);
    EXPECT_EQ(nothing.code, 1); // everything is written all the same
    EXPECT_NE(nothing.err.find("no pixel of the two pictures matches"), std::string::npos) << nothing.err;
    EXPECT_TRUE(fs::exists(at("left") + "/report.html"));
}

TEST_F(Methods, NoiseThatCostsFringeNumbersIsWarnedOf)
{
    ASSERT_EQ(run("simulate plane --size 320x256 --method multi-phase --noise 9 --quiet --out " + at("noisy")).code, 0);
    const Outcome noisy = run("measure " + at("noisy") + " --out " + at("r_noisy"));
    EXPECT_EQ(noisy.code, 0) << noisy.err;
    EXPECT_NE(noisy.out.find("warning      camera 0: phase noise"), std::string::npos) << noisy.out;
    const Outcome quiet = run("measure " + at("multi-phase") + " --out " + at("r_multi"));
    EXPECT_EQ(quiet.out.find("warning"), std::string::npos) << quiet.out;
}

TEST_F(Methods, TableNamesTheMethodsWhenTheSceneIsTheSame)
{
    for (const char* method : { "multi-phase", "sgbm" }) {
        measure(at(method), std::string("t_") + method);
        compare(std::string("t_") + method, method);
    }
    const Outcome table = run("table " + at("t_multi-phase") + " " + at("t_sgbm"));
    const Outcome alone = run("table " + at("t_sgbm"));
    EXPECT_NE(table.out.find("multi-phase"), std::string::npos) << table.out;
    EXPECT_NE(table.out.find("time to decode and match"), std::string::npos) << table.out;
    EXPECT_EQ(alone.out.find("sgbm"), std::string::npos) << alone.out;
}

} // namespace
