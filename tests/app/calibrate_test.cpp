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

    static double number_of(const std::string& yaml, const std::string& key)
    {
        return static_cast<double>(cv::FileStorage(yaml, cv::FileStorage::READ)[key]);
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
    const Json& apart = report["hold_out"]["halves_apart"]; // an error of 1 px in 875 of the focal length is 0.7 mm
    EXPECT_LT(apart["depth_mm"].get<double>(), 1.5);
    EXPECT_NEAR(apart["distance_mm"].get<double>(), 600, 100);
    EXPECT_EQ(report, Json::parse(program::read(at("calib/report.json"))));
    const Json measured = told("measure",
        "--method sgbm --cam0 " + picture("photos", 0, 5) + " --cam1 " + picture("photos", 1, 5) + " --calib "
            + at("calib") + " --out " + at("shared"));
    const Json& share = measured["calibration_share_mm"];
    ASSERT_TRUE(share.is_object()) << measured["calibration_share_unknown"];
    EXPECT_EQ(share, report["calibration_share_mm"]);
    for (const char* known : { "calib", "calib/cameras.yaml", "calib/covariance.yaml" }) {
        const Json info = told("info", at(known) + " --depth 500:700"), expected = info["expected_accuracy"];
        EXPECT_EQ(share, info["calibration_share_mm"]) << known;
        EXPECT_EQ(expected["distances_mm"], Json({ 500.0, 600.0, 700.0 })) << known;
        for (std::size_t i = 0; i < 3; ++i)
            EXPECT_NEAR(expected["accuracy_mm"][i].get<double>(),
                std::hypot(expected["share_mm"][i].get<double>(), expected["noise_mm"][i].get<double>()), 1e-12);
    }
}

TEST_F(Calibrate, IsNotCalledGoodWithoutRefinementAndOfASingleCameraSaysDirections)
{
    const std::string to_raw = at("photos") + " --no-refine --no-hold-out --out " + at("raw");
    const Json raw = Json::parse(run("calibrate --json --board " + at("board.yaml") + " " + to_raw).out);
    EXPECT_NE(raw["verdict"], "good");
    EXPECT_NE(raw["calibration_share_mm"]["invalid"].get<std::string>().find("not refined"), std::string::npos);
    EXPECT_NE(answer(raw, "How exact will points be?", "answer").find(" mm at "), std::string::npos);
    const Json single = calibrated("--cam0 " + at("photos/cam0") + " --no-hold-out --out " + at("single"));
    EXPECT_LT(single["direction_share"]["px"].get<double>(), 0.05);
    for (const char* file : { "single", "single/cameras.yaml", "single/covariance.yaml" })
        EXPECT_EQ(told("info", at(file))["direction_share"], single["direction_share"]) << file;
    EXPECT_NE(program::read(at("single/report.html")).find("across the line of sight"), std::string::npos);
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
    fs::create_directories(at("stereo"));
    for (const char* name : { "stereo.yaml", "map0.bin", "map1.bin" })
        fs::copy_file(at("files/") + name, at("stereo/") + name);
    const std::string photos = "--method sgbm --cam0 " + picture("photos", 0, 5) + " --cam1 " + picture("photos", 1, 5);
    const Json computed = told("measure", photos + " --calib " + at("files") + " --out " + at("computed"));
    const Json from_tables = told("measure", photos + " --calib " + at("stereo") + " --out " + at("from_tables"));
    EXPECT_EQ(computed["pixels"], from_tables["pixels"]);
    EXPECT_EQ(computed["made_from"]["calibration"][0]["file"], "cameras.yaml");
    EXPECT_EQ(from_tables["made_from"]["calibration"].size(), 3U);
    std::string bad = program::read(at("files/cameras.yaml"));
    bad.erase(bad.find("verdict:"));
    program::write(at("bad.yaml"), bad + "verdict: \"not good enough\"\n");
    const Outcome repeated
        = run("measure --json " + photos + " --calib " + at("bad.yaml") + " --out " + at("repeated"));
    EXPECT_EQ(repeated.code, 1);
    EXPECT_NE(repeated.err.find("found this calibration not good enough"), std::string::npos) << repeated.err;
    EXPECT_EQ(Json::parse(repeated.out)["calibration_verdict"], "not good enough");
    EXPECT_FALSE(cv::imread(at("files/drawings/cam1_view03.jpg")).empty());

    const std::string page = program::read(at("files/report.html"));
    EXPECT_EQ(page.find("http"), page.find("http-")); // no address at all
    for (const char* reference : { "src=\"", "href=\"" })
        for (std::size_t i = page.find(reference); i != std::string::npos; i = page.find(reference, i + 1))
            ASSERT_EQ(page.compare(i, 10, "src=\"data:"), 0) << page.substr(i, 60);
    for (const char* question : { "Is it good?", "Which view spoils it?", "true to scale?" })
        EXPECT_NE(page.find(question), std::string::npos) << question;
}

TEST_F(Calibrate, NamesPicturesThatWereExchangedAndReplacesNoBetterCalibrationByABadOne)
{
    copy("photos", "spoilt");
    fs::rename(picture("spoilt", 1, 3), at("moved.png"));
    fs::rename(picture("spoilt", 1, 6), picture("spoilt", 1, 3));
    fs::rename(at("moved.png"), picture("spoilt", 1, 6));
    const Json better = calibrated(at("spoilt") + " --drop-view 3,6 --out " + at("mixed"));
    EXPECT_TRUE(better["outlying_views"].empty());
    EXPECT_NEAR(better["baseline_mm"].get<double>(), truth["baseline_mm"], 0.3);
    const std::string before = program::read(at("mixed/cameras.yaml"));

    const std::string again
        = "calibrate --json --no-hold-out --board " + at("board.yaml") + " " + at("spoilt") + " --out " + at("mixed");
    for (const bool force : { false, true }) {
        const Outcome outcome = run(again + (force ? " --force" : ""));
        EXPECT_EQ(outcome.code, 1);
        EXPECT_TRUE(outcome.one_line_of_error()) << outcome.err;
        EXPECT_NE(
            outcome.err.find("view03.png and view06.png of camera 1 (or of camera 0) are exchanged"), std::string::npos)
            << outcome.err;
        EXPECT_EQ(program::read(at("mixed/cameras.yaml")) == before, !force);
        const Json report = Json::parse(outcome.out);
        EXPECT_EQ(report["outlying_views"], Json({ 3, 6 }));
        EXPECT_NE(answer(report, "Does a view spoil it?", "advice").find("--drop-view 3,6"), std::string::npos);
    }
    EXPECT_NE(program::read(at("mixed/cameras.yaml")).find("verdict: \"not good enough\""), std::string::npos);
}

TEST_F(Calibrate, AsksAboutExchangedCamerasAndARowThatNobodySawAndCallsNothingGoodThatTwoPhotosShow)
{
    const std::string photos = "--cam0 '" + at("photos/cam1") + "' --cam1 '" + at("photos/cam0") + "' --no-hold-out";
    const std::string board = program::read(at("board.yaml")), rows = "rows: 9";
    program::write(at("taller.yaml"), std::string(board).replace(board.find(rows), rows.size(), "rows: 10"));
    const Json asked = told("calibrate", photos + " --board " + at("taller.yaml") + " --out " + at("asked"));
    EXPECT_EQ(answer(asked, "Is camera 1 to the right of camera 0?", "level"), "worse");
    EXPECT_EQ(answer(asked, "Is board.yaml that of this board?", "answer"), "row 10 of board.yaml: never seen");

    const Outcome two = run("calibrate --json " + photos + " --drop-view 2,3,4,5,6,7,8,9 --board " + at("board.yaml")
        + " --out " + at("two"));
    EXPECT_EQ(two.code, 1);
    const Json report = Json::parse(two.out);
    for (const Json& check : report["checks"])
        EXPECT_NE(check["level"], "good") << check;
}

// The cameras of `turned` look inwards by 0.1 degrees more or less: rows stay, depths are off by 2 x 2.2 mm at 600 mm.
TEST_F(Calibrate, IsRightForNewPhotosUntilACameraTurnsAndMixedUpPhotosAreNotTakenForThat)
{
    calibrated(at("photos") + " --no-hold-out --out " + at("right"));
    const std::string take
        = "simulate calibration --size 800x640 --quiet --views 4 --seed 2 --board " + at("board.yaml");
    ASSERT_EQ(run(take + " --out " + at("new")).code, 0);
    ASSERT_EQ(run(take + " --toe-in 7.695 --out " + at("turned")).code, 0); // 7.595 looks at the middle of the scene
    copy("new", "mixed_up");
    fs::rename(picture("mixed_up", 0, 0), at("moved.png"));
    fs::rename(picture("mixed_up", 0, 1), picture("mixed_up", 0, 0));
    fs::rename(at("moved.png"), picture("mixed_up", 0, 1));
    const struct {
        std::string photos, finding, named;
    } cases[] = { { at("new"), "", "" }, { at("turned"), "distances", "calibrate again" },
        { at("mixed_up"), "exchanged", "view00.png and view01.png" },
        { "--cam0 " + at("new/cam1") + " --cam1 " + at("new/cam0"), "exchanged", "camera 0's photos are those" } };
    for (const auto& c : cases) {
        const Outcome outcome = run("verify --json " + c.photos + " --calib " + at("right"));
        EXPECT_EQ(outcome.code, c.finding.empty() ? 0 : 1) << c.photos << outcome.err;
        EXPECT_NE(outcome.err.find(c.named), std::string::npos) << outcome.err;
        std::string first;
        const Json report = Json::parse(outcome.out);
        for (const Json& finding : report["findings"])
            if (first.empty() && finding["weight"] == "spoils") first = finding["name"];
        EXPECT_EQ(first, c.finding) << outcome.out;
    }
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
    EXPECT_NE(answer(report, "Is the printed board true to scale?", "answer")
                  .find("0.201 % apart, which the views do not show"),
        std::string::npos);
}

TEST_F(Calibrate, LearnsHowABentBoardLiesAndLetsRulerXAloneSetItsPitch)
{
    ASSERT_EQ(run("simulate calibration --quiet --size 800x640 --views 8 --bow 0.3 --stretch-y 0.003 --board "
                  + at("board.yaml") + " --out " + at("bent"))
                  .code,
        0);
    const Json report = calibrated(at("bent") + " --no-hold-out --ruler-x 99 --ruler-y 99.3 --out " + at("of_bent"));
    for (std::size_t k = 0; k < 2; ++k)
        EXPECT_NEAR(report["cameras"][k]["fx"].get<double>(), matrix(truth["cameras"][k]["K"])(0, 0), 0.2);
    const Json& shape = report["board_shape"];
    EXPECT_TRUE(shape["kept"].get<bool>());
    EXPECT_NEAR(shape["stretch_y"].get<double>(), 0.003, 5e-5);
    EXPECT_NEAR(shape["bow_xx"].get<double>(), shape["bow_yy"].get<double>(), 0.005) << "a paraboloid was bent";
    EXPECT_LT(shape["bow_xx"].get<double>(), -0.1) << "its middle nearer to the cameras than the rim";
    const double printed = number_of(at("board.yaml"), "pitch");
    EXPECT_DOUBLE_EQ(number_of(at("of_bent/board.yaml"), "pitch"), 0.99 * printed);
    EXPECT_EQ(answer(report, "Is the printed board true to scale?", "level"), "good")
        << "ruler y agrees with the views";
    EXPECT_NEAR(number_of(at("of_bent/board.yaml"), "bow_xx"), shape["bow_xx"].get<double>(), 1e-6);
    const Json verified = told("verify", at("bent") + " --calib " + at("of_bent"));
    EXPECT_LT(verified["cameras"][0]["rms_px"].get<double>(), 0.2) << "a flat board would be off by more";
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
