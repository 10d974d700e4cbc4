#include "program.h"
#include "support/board_image.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>
#include <memory>

namespace {

namespace fs = std::filesystem;
using board_image::Board;
using board_image::Camera;
using board_image::Pose;
using Json = nlohmann::json;
using program::Outcome;

constexpr int view_count = 10;
constexpr double baseline_mm = 160;

/// A pair at 0.6 of the usual resolution, toed in by 15 degrees, before the coarse board.
struct Rig {
    Rig()
    {
        for (std::size_t k = 0; k < 2; ++k) {
            cameras[k].size = { 800, 640 };
            cameras[k].fx = k == 0 ? 876 : 871;
            cameras[k].fy = k == 0 ? 874 : 873;
            cameras[k].cx = k == 0 ? 404 : 397;
            cameras[k].cy = k == 0 ? 316 : 322;
            cameras[k].d = { k == 0 ? -0.08 : -0.07, 0.05, 0.0004, -0.0003, 0.0 };
        }
        const cv::Matx33d turn = board_image::rotation(1, 15 * CV_PI / 180);
        cam1_from_cam0 = { turn, -(turn * cv::Vec3d(baseline_mm, 0, 0)) };
    }

    /// Board to camera 0. Every view tilts to another side; turns and places spread the markers over the image.
    Pose view(int v) const
    {
        const cv::Vec3d middle(80 + 50 * std::sin(2.1 * v), 40 * std::cos(1.3 * v), 520 + 50 * std::sin(0.9 * v));
        return board_image::view(board, v == 0 ? 0.0 : 0.35 + 0.04 * (v % 5), 0.7 * v, 0.5 * v, middle);
    }

    std::array<Camera, 2> cameras;
    Pose cam1_from_cam0;
    Board board = board_image::coarse_board();
};

class Calibrate : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        work = std::make_unique<program::Folder>();
        const Rig rig;
        for (std::size_t k = 0; k < 2; ++k) {
            fs::create_directories(at("photos/cam") + std::to_string(k));
            const board_image::Renderer renderer(rig.cameras[k]);
            for (int v = 0; v < view_count; ++v) {
                const Pose pose = k == 0 ? rig.view(v) : rig.cam1_from_cam0 * rig.view(v);
                cv::imwrite(picture("photos", static_cast<int>(k), v),
                    renderer.render(rig.board, pose, {}, static_cast<int>(100 * k) + v));
            }
        }
        board = program::run(*work, "board --quiet --preset coarse --out " + at("board.svg"));
    }
    static void TearDownTestSuite() { work.reset(); }
    void SetUp() override { ASSERT_EQ(board.code, 0) << board.err; }

    static std::string at(const std::string& name) { return *work / name; }

    static std::string picture(const std::string& folder, int camera, int v)
    {
        return at(folder) + "/cam" + std::to_string(camera) + "/view" + std::to_string(v) + ".png";
    }

    static void copy_photos()
    {
        fs::remove_all(at("spoilt"));
        fs::copy(at("photos"), at("spoilt"), fs::copy_options::recursive);
    }

    static Outcome calibrate(const std::string& arguments)
    {
        return program::run(*work, "calibrate --json --board " + at("board.yaml") + " " + arguments);
    }

    static Json calibrated(const std::string& arguments)
    {
        const Outcome o = calibrate(arguments);
        EXPECT_EQ(o.code, 0) << o.err;
        return Json::parse(o.out, nullptr, false);
    }

    static std::string answer(const Json& report, const std::string& question, const std::string& part)
    {
        for (const Json& check : report["checks"])
            if (check["question"] == question) return check[part];
        return "";
    }

    static std::unique_ptr<program::Folder> work;
    static Outcome board;
};
std::unique_ptr<program::Folder> Calibrate::work;
Outcome Calibrate::board;

// Centres are known to 0.1 px; ten views of 99 markers leave about 0.5 px of focal length and principal point.
TEST_F(Calibrate, FindsThePairThatWasRendered)
{
    const Rig rig;
    const Json report = calibrated(at("photos") + " --out " + at("calib"));
    for (std::size_t k = 0; k < 2; ++k) {
        const Json& found = report["cameras"][k];
        EXPECT_NEAR(found["fx"].get<double>(), rig.cameras[k].fx, 1.5);
        EXPECT_NEAR(found["fy"].get<double>(), rig.cameras[k].fy, 1.5);
        EXPECT_NEAR(found["cx"].get<double>(), rig.cameras[k].cx, 1.5);
        EXPECT_NEAR(found["cy"].get<double>(), rig.cameras[k].cy, 1.5);
    }
    EXPECT_NEAR(report["baseline_mm"].get<double>(), baseline_mm, 0.3);
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
    EXPECT_FALSE(cv::imread(at("files/drawings/cam1_view3.jpg")).empty());

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
    copy_photos();
    fs::rename(picture("spoilt", 1, 3), at("moved.png"));
    fs::rename(picture("spoilt", 1, 6), picture("spoilt", 1, 3));
    fs::rename(at("moved.png"), picture("spoilt", 1, 6));
    const Json report = calibrated(at("spoilt") + " --out " + at("mixed"));
    EXPECT_EQ(report["outlying_views"], Json({ 3, 6 }));
    EXPECT_EQ(report["verdict"], "not good enough");
    EXPECT_NE(answer(report, "Does a view spoil it?", "advice").find("--drop-view 3,6"), std::string::npos);

    const Json better = calibrated(at("spoilt") + " --drop-view 3,6 --out " + at("better"));
    EXPECT_TRUE(better["outlying_views"].empty());
    EXPECT_NEAR(better["baseline_mm"].get<double>(), baseline_mm, 0.3);
}

TEST_F(Calibrate, SaysWhyAPictureWasNotRecognisedAndKeepsThePairsInStep)
{
    copy_photos();
    cv::imwrite(picture("spoilt", 1, 4), cv::Mat(640, 800, CV_8U, cv::Scalar(90)));
    cv::imwrite(picture("spoilt", 0, 7), cv::Mat(300, 400, CV_8U, cv::Scalar(90)));
    const Json report = calibrated(at("spoilt") + " --no-hold-out --out " + at("gaps"));
    EXPECT_EQ(report["views_used"], view_count - 2);
    EXPECT_EQ(report["views"][4]["pictures"][1]["outcome"].get<std::string>().rfind("Few_Contours", 0), 0U);
    EXPECT_EQ(report["views"][4]["pictures"][0]["outcome"], "found 99 of 99 markers");
    EXPECT_EQ(report["views"][7]["pictures"][0]["outcome"].get<std::string>().rfind("ImageSize_Changed", 0), 0U);
    EXPECT_NEAR(report["baseline_mm"].get<double>(), baseline_mm, 0.3);
}

TEST_F(Calibrate, RulersCorrectThePitchAndTellAPrinterThatIsNotSquare)
{
    const Json report = calibrated(at("photos") + " --no-hold-out --ruler-x 99.6 --ruler-y 99.8 --out " + at("rulers"));
    EXPECT_NEAR(report["pitch_mm"].get<double>(), 20 * 0.997, 1e-9);
    EXPECT_NEAR(report["baseline_mm"].get<double>(), baseline_mm * 0.997, 0.3);
    EXPECT_NE(answer(report, "Is the printed board true to scale?", "answer").find("not square"), std::string::npos);
}

TEST_F(Calibrate, OneCameraIsCalibratedFromItsPicturesAlone)
{
    const Rig rig;
    const Json report = calibrated("--cam0 '" + at("photos/cam0/view*.png") + "' --out " + at("one"));
    EXPECT_EQ(report["cameras"].size(), 1U);
    EXPECT_NEAR(report["cameras"][0]["fx"].get<double>(), rig.cameras[0].fx, 1.5);
    EXPECT_TRUE(report["hold_out"].contains("camera_rms_px"));
    EXPECT_TRUE(fs::exists(at("one/cameras.yaml")));
    EXPECT_FALSE(fs::exists(at("one/stereo.yaml")));
}

TEST_F(Calibrate, WhatCannotBeCalibratedIsAnErrorOfOneLineAndNothingIsWritten)
{
    copy_photos();
    fs::remove(picture("spoilt", 0, 2));
    fs::remove(picture("spoilt", 1, 5));
    fs::remove(picture("spoilt", 1, 8));
    fs::create_directories(at("blank/cam0"));
    cv::imwrite(picture("blank", 0, 1), cv::Mat(640, 800, CV_8U, cv::Scalar(90)));
    fs::create_directories(at("few/cam0"));
    fs::create_directories(at("few/cam1"));
    for (const int k : { 0, 1 })
        fs::copy(picture("photos", k, 0), picture("few", k, 0));
    const struct {
        std::string arguments, why;
    } cases[] = { { at("spoilt"), "of camera 0 view5.png, view8.png; of camera 1 view2.png" },
        { at("blank"), "recognised in no view" }, { at("photos") + " --drop-view 77", "--drop-view 77" },
        { at("photos") + " --ruler-x 9.96", "--ruler-x" }, { at("absent"), "absent" }, { "", "cam0" } };
    for (const auto& c : cases) {
        const Outcome refused = calibrate(c.arguments + " --out " + at("none"));
        EXPECT_EQ(refused.code, 1) << c.arguments;
        EXPECT_TRUE(refused.one_line_of_error()) << refused.err;
        EXPECT_NE(refused.err.find(c.why), std::string::npos) << refused.err;
        EXPECT_FALSE(fs::exists(at("none"))) << c.arguments;
    }
}

// A marker is known to 0.1 px, the board's distance through 99 of them to some tenths of a mm.
TEST_F(Calibrate, PoseIsTheOneThatWasRendered)
{
    const Rig rig;
    calibrated(at("photos") + " --no-hold-out --out " + at("for_pose"));
    for (const int camera : { 0, 1 }) {
        const Outcome o = program::run(*work,
            "pose --json " + picture("photos", camera, 5) + " --camera " + std::to_string(camera) + " --calib "
                + at("for_pose/cameras.yaml") + " --board " + at("board.yaml") + " --out " + at("poses"));
        ASSERT_EQ(o.code, 0) << o.err;
        const Json found = Json::parse(o.out)[0];
        const Pose truth = camera == 0 ? rig.view(5) : rig.cam1_from_cam0 * rig.view(5);
        for (std::size_t r = 0; r < 3; ++r) {
            const int row = static_cast<int>(r);
            EXPECT_NEAR(found["camera_from_board"][r][3].get<double>(), truth.t[row], r == 2 ? 1.0 : 0.5);
            for (std::size_t c = 0; c < 3; ++c)
                EXPECT_NEAR(found["camera_from_board"][r][c].get<double>(), truth.R(row, static_cast<int>(c)), 2e-3);
        }
        EXPECT_FALSE(cv::imread(at("poses/0_view5.jpg")).empty());
    }
    const Outcome none = program::run(
        *work, "pose " + at("board.svg") + " --calib " + at("for_pose/cameras.yaml") + " --board " + at("board.yaml"));
    EXPECT_EQ(none.code, 1);
    EXPECT_TRUE(none.one_line_of_error()) << none.err;
}

} // namespace
