#include "program.h"

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using program::Outcome;

constexpr int view_count = 10;

cv::Matx33d matrix(const Json& rows)
{
    cv::Matx33d m;
    for (int i = 0; i < 9; ++i)
        m.val[i] = rows[static_cast<std::size_t>(i / 3)][static_cast<std::size_t>(i % 3)];
    return m;
}

cv::Vec3d vector(const Json& numbers)
{
    return { numbers[0], numbers[1], numbers[2] };
}

/// Photos of the coarse board by the virtual rig, and the truth about them.
class Calibrate : public program::Suite {
protected:
    static void SetUpTestSuite()
    {
        Suite::SetUpTestSuite();
        made = run("board --quiet --preset coarse --out " + at("board.svg"));
        if (made.code == 0)
            made = run("simulate calibration --size 800x640 --quiet --views " + std::to_string(view_count) + " --board "
                + at("board.yaml") + " --out " + at("photos"));
        truth = Json::parse(program::read(at("photos/truth.json")), nullptr, false);
    }
    void SetUp() override { ASSERT_EQ(made.code, 0) << made.err; }

    static std::string picture(const std::string& folder, int camera, int v)
    {
        return at(folder) + "/cam" + std::to_string(camera) + "/view0" + std::to_string(v) + ".png";
    }

    static void expect_camera(const Json& found, std::size_t k)
    {
        const cv::Matx33d K = matrix(truth["cameras"][k]["K"]);
        EXPECT_NEAR(found["fx"].get<double>(), K(0, 0), 1.5);
        EXPECT_NEAR(found["fy"].get<double>(), K(1, 1), 1.5);
        EXPECT_NEAR(found["cx"].get<double>(), K(0, 2), 1.5);
        EXPECT_NEAR(found["cy"].get<double>(), K(1, 2), 1.5);
    }

    static Json calibrated(const std::string& arguments)
    {
        return told("calibrate", "--board " + at("board.yaml") + " " + arguments);
    }

    static std::string answer(const Json& report, const std::string& question, const std::string& part)
    {
        for (const Json& check : report["checks"])
            if (check["question"] == question) return check[part];
        return "";
    }

    inline static Outcome made;
    inline static Json truth;
};

// Centres are known to 0.1 px; ten views of 99 markers leave about 0.5 px of focal length and principal point.
TEST_F(Calibrate, FindsThePairThatWasRendered)
{
    const Json report = calibrated(at("photos") + " --out " + at("calib"));
    for (const std::size_t k : { 0U, 1U })
        expect_camera(report["cameras"][k], k);
    EXPECT_NEAR(report["baseline_mm"].get<double>(), truth["baseline_mm"], 0.3);
    EXPECT_LT(report["rms_px"].get<double>(), 0.2);
    EXPECT_LT(report["pair"]["row_error_systematic_px"].get<double>(), 0.05);
    EXPECT_LT(std::abs(report["hold_out"]["pair"]["distances_along_x"]["bias_mm"].get<double>()), 0.1);
    EXPECT_TRUE(report["outlying_views"].empty());
    EXPECT_EQ(answer(report, "Is the printed board true to scale?", "level"), "unknown");
    EXPECT_EQ(report, Json::parse(program::read(at("calib/report.json"))));
}

TEST_F(Calibrate, WritesFilesThatOtherCommandsReadAndAPageThatNeedsNoOtherFile)
{
    calibrated(at("photos") + " --no-hold-out --out " + at("files"));
    for (const char* name : { "cameras.yaml", "stereo.yaml", "hmat0.bin", "hmat1.bin", "hmat_tables.bin" }) {
        const Outcome told = program::run(*work, "info " + at("files/") + name);
        EXPECT_EQ(told.code, 0) << name << told.err;
    }
    for (const char* name : { "map0.bin", "map1.bin", "boardRT.yaml", "board.yaml" })
        EXPECT_TRUE(fs::exists(at("files/") + name)) << name;
    EXPECT_FALSE(cv::imread(at("files/drawings/cam1_view03.jpg")).empty());

    const std::string page = program::read(at("files/report.html"));
    EXPECT_EQ(page.find("http"), page.find("http-")); // no address at all
    for (const char* reference : { "src=\"", "href=\"" })
        for (std::size_t i = page.find(reference); i != std::string::npos; i = page.find(reference, i + 1))
            ASSERT_EQ(page.compare(i, 10, "src=\"data:"), 0) << page.substr(i, 60);
    for (const char* question : { "Is it good?", "Which view spoils it?", "true to scale?" })
        EXPECT_NE(page.find(question), std::string::npos) << question;
}

TEST_F(Calibrate, NamesTheViewsWhosePicturesWereMixedUpAndIsGoodWithoutThem)
{
    copy("photos", "spoilt");
    fs::rename(picture("spoilt", 1, 3), at("moved.png"));
    fs::rename(picture("spoilt", 1, 6), picture("spoilt", 1, 3));
    fs::rename(at("moved.png"), picture("spoilt", 1, 6));
    const Json report = calibrated(at("spoilt") + " --out " + at("mixed"));
    EXPECT_EQ(report["outlying_views"], Json({ 3, 6 }));
    EXPECT_EQ(report["verdict"], "not good enough");
    EXPECT_NE(answer(report, "Does a view spoil it?", "advice").find("--drop-view 3,6"), std::string::npos);

    const Json better = calibrated(at("spoilt") + " --drop-view 3,6 --out " + at("better"));
    EXPECT_TRUE(better["outlying_views"].empty());
    EXPECT_NEAR(better["baseline_mm"].get<double>(), truth["baseline_mm"], 0.3);
}

TEST_F(Calibrate, SaysWhyAPictureWasNotRecognisedAndKeepsThePairsInStep)
{
    copy("photos", "spoilt");
    cv::imwrite(picture("spoilt", 1, 4), cv::Mat(640, 800, CV_8U, cv::Scalar(90)));
    cv::imwrite(picture("spoilt", 0, 7), cv::Mat(300, 400, CV_8U, cv::Scalar(90)));
    const Json report = calibrated(at("spoilt") + " --no-hold-out --out " + at("gaps"));
    EXPECT_EQ(report["views_used"], view_count - 2);
    EXPECT_EQ(report["views"][4]["pictures"][1]["outcome"].get<std::string>().rfind("Few_Contours", 0), 0U);
    EXPECT_EQ(report["views"][4]["pictures"][0]["outcome"], "found 99 of 99 markers");
    EXPECT_EQ(report["views"][7]["pictures"][0]["outcome"].get<std::string>().rfind("ImageSize_Changed", 0), 0U);
    EXPECT_NEAR(report["baseline_mm"].get<double>(), truth["baseline_mm"], 0.3);
}

TEST_F(Calibrate, RulersCorrectThePitchAndTellAPrinterThatIsNotSquare)
{
    const Json report = calibrated(at("photos") + " --no-hold-out --ruler-x 99.6 --ruler-y 99.8 --out " + at("rulers"));
    EXPECT_NEAR(report["pitch_mm"].get<double>(), 20 * 0.997, 1e-9);
    EXPECT_NEAR(report["baseline_mm"].get<double>(), truth["baseline_mm"].get<double>() * 0.997, 0.3);
    EXPECT_NE(answer(report, "Is the printed board true to scale?", "answer").find("not square"), std::string::npos);
}

TEST_F(Calibrate, OneCameraIsCalibratedFromItsPicturesAlone)
{
    const Json report = calibrated("--cam0 '" + at("photos/cam0/view*.png") + "' --out " + at("one"));
    EXPECT_EQ(report["cameras"].size(), 1U);
    expect_camera(report["cameras"][0], 0);
    EXPECT_TRUE(report["hold_out"].contains("camera_rms_px"));
    EXPECT_TRUE(fs::exists(at("one/cameras.yaml")));
    EXPECT_FALSE(fs::exists(at("one/stereo.yaml")));
}

TEST_F(Calibrate, WhatCannotBeCalibratedIsAnErrorOfOneLineAndNothingIsWritten)
{
    copy("photos", "spoilt");
    fs::remove(picture("spoilt", 0, 2));
    fs::remove(picture("spoilt", 1, 5));
    fs::remove(picture("spoilt", 1, 8));
    fs::create_directories(at("blank/cam0"));
    cv::imwrite(picture("blank", 0, 1), cv::Mat(640, 800, CV_8U, cv::Scalar(90)));
    const struct {
        std::string arguments, why;
    } cases[] = { { at("spoilt"), "of camera 0 view05.png, view08.png; of camera 1 view02.png" },
        { at("blank"), "recognised in no view" }, { at("photos") + " --drop-view 77", "--drop-view 77" },
        { at("photos") + " --ruler-x 9.96", "--ruler-x" }, { at("absent"), "absent" }, { "", "cam0" } };
    for (const auto& c : cases)
        program::expect_refused(*work,
            "calibrate --board " + at("board.yaml") + " " + c.arguments + " --out " + at("none"), c.why, at("none"));
}

// A marker is known to 0.1 px, the board's distance through 99 of them to some tenths of a mm.
TEST_F(Calibrate, PoseIsTheOneThatWasRendered)
{
    calibrated(at("photos") + " --no-hold-out --out " + at("for_pose"));
    const std::string rig = " --calib " + at("for_pose/cameras.yaml") + " --board " + at("board.yaml");
    for (const int camera : { 0, 1 }) {
        const Json found = told("pose",
            picture("photos", camera, 5) + " --camera " + std::to_string(camera) + rig + " --out " + at("poses"))[0];
        const Json& true_pose = truth["poses"][5];
        const Json& from_cam0 = truth["cameras"][static_cast<std::size_t>(camera)];
        const cv::Matx33d turn = matrix(from_cam0["R"]), R = turn * matrix(true_pose["R_cam0_from_board"]);
        const cv::Vec3d t = turn * vector(true_pose["T_cam0_from_board_mm"]) + vector(from_cam0["T"]);
        for (std::size_t r = 0; r < 3; ++r) {
            const Json& row = found["camera_from_board"][r];
            EXPECT_NEAR(row[3].get<double>(), t[static_cast<int>(r)], r == 2 ? 1.0 : 0.5);
            for (std::size_t c = 0; c < 3; ++c)
                EXPECT_NEAR(row[c].get<double>(), R(static_cast<int>(r), static_cast<int>(c)), 2e-3);
        }
        EXPECT_FALSE(cv::imread(at("poses/0_view05.jpg")).empty());
    }
    program::expect_refused(*work, "pose " + at("board.svg") + rig, "board.svg");
}

} // namespace
