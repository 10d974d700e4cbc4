#include "program.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cstring>
#include <set>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using program::Outcome;

/// One small plane, simulated once: fringes of 32 projector pixels are about 11 camera pixels long.
class Measure : public program::Suite {
protected:
    static void SetUpTestSuite()
    {
        Suite::SetUpTestSuite();
        simulated = run("simulate plane --size 320x256 --period 32 --quiet --out " + at("scan"));
    }
    void SetUp() override { ASSERT_EQ(simulated.code, 0) << simulated.err; }

    inline static Outcome simulated;
};

TEST_F(Measure, PlaneIsMeasuredWholeAndAsExactlyAsItsNoiseAllows)
{
    const Outcome measured = run("measure --json " + at("scan") + " --out " + at("plane"));
    ASSERT_EQ(measured.code, 0) << measured.err;
    const Json report = Json::parse(measured.out);
    long long pixels = report["pixels"]["measured"];
    for (const auto& cause : report["pixels"]["not_measured"])
        pixels += cause.get<long long>();
    EXPECT_EQ(pixels, 320 * 256);
    EXPECT_EQ(report, Json::parse(program::read(at("plane/report.json"))));
    EXPECT_TRUE(measured.err.empty()) << measured.err;

    const Json c = told("compare", at("plane") + " " + at("scan"));
    EXPECT_GE(c["coverage"]["inner_coverage"].get<double>(), 0.995);
    EXPECT_LE(c["error"]["outliers"].get<double>(), 0.0005);
    EXPECT_LT(std::abs(c["error"]["bias"].get<double>()), 0.1 * c["error"]["rms"].get<double>());
}

TEST_F(Measure, PointsAreAsFarOffAsTheirSigmaSaysAtTwoNoiseLevelsRefinedAndNot)
{
    ASSERT_EQ(run("simulate plane --size 320x256 --period 32 --noise 4 --quiet --out " + at("noisy")).code, 0);
    double rms[2][2];
    for (const bool noisy : { false, true })
        for (const bool refined : { false, true }) {
            const std::string scan = at(noisy ? "noisy" : "scan"), out = at("sigma");
            ASSERT_EQ(run("measure --quiet " + scan + (refined ? "" : " --no-refine") + " --out " + out).code, 0);
            const Json c = told("compare", out + " " + scan), &sigma = c["sigma"];
            rms[noisy][refined] = c["error"]["rms_without_outliers"];
            EXPECT_FALSE(c.contains("predicted_noise"));
            // Some 6000 points a decile: chance moves its rms by 1 %, the rest is the model's.
            EXPECT_GE(sigma["z_rms_least"].get<double>(), 0.9) << sigma;
            EXPECT_LE(sigma["z_rms_most"].get<double>(), 1.1) << sigma;
            EXPECT_LE(sigma["beyond_6"].get<double>(), 0.003) << sigma;
        }
    EXPECT_LT(rms[0][1], 0.95 * rms[0][0]); // exact positions
    EXPECT_LT(rms[1][1], rms[1][0]);
}

TEST_F(Measure, BallsAreMuchLessTooSmallThanByStraightLinesThroughTheirSamples)
{
    ASSERT_EQ(run("simulate spheres --size 320x256 --period 32 --quiet --out " + at("balls")).code, 0);
    double missing[2] = { 0.0, 0.0 }; // mm of both diameters, without and with refinement
    for (const bool refined : { false, true }) {
        run("measure --quiet --accept-verdict " + at("balls") + (refined ? "" : " --no-refine") + " --out " + at("r"));
        const Json c = told("compare", at("r") + " " + at("balls"));
        for (const Json& diameter : c["balls"]["diameters"])
            missing[refined] += 40.0 - diameter.get<double>();
    }
    EXPECT_GT(missing[0], 0.5); // of 0.6: a line through five samples lies behind a ball
    EXPECT_LT(missing[1], 0.65 * missing[0]);
}

TEST_F(Measure, FilesAgreeWithEachOtherAndWithTheReport)
{
    ASSERT_EQ(run("measure --quiet " + at("scan") + " --out " + at("files")).code, 0);
    const Json report = Json::parse(program::read(at("files/report.json")));
    const cv::Mat depth = cv::imread(at("files/depth.tiff"), cv::IMREAD_UNCHANGED);
    const cv::Mat steps = cv::imread(at("files/depth.png"), cv::IMREAD_UNCHANGED);
    const cv::Mat disparity = cv::imread(at("files/disparity.tiff"), cv::IMREAD_UNCHANGED);
    const cv::Mat valid = cv::imread(at("files/valid.png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(depth.type(), CV_32FC1);
    ASSERT_EQ(steps.type(), CV_16UC1);
    EXPECT_EQ(cv::countNonZero(valid), report["pixels"]["measured"].get<int>());
    const cv::Mat cause = cv::imread(at("files/cause.png"), cv::IMREAD_UNCHANGED);
    for (const auto& [code, key] : report["cause_png"].items()) {
        const Json& pixels = report["pixels"];
        const Json& count = key == "measured" ? pixels["measured"] : pixels["not_measured"][key.get<std::string>()];
        EXPECT_EQ(cv::countNonZero(cause == std::stoi(code)), count.get<int>()) << key;
    }

    const double unit = report["depth_png"]["unit"],
                 f_baseline = report["camera"]["f"].get<double>() * report["camera"]["baseline"].get<double>();
    const double infinity = report["camera"]["disparity_at_infinity"];
    for (int y = 0; y < depth.rows; ++y) {
        for (int x = 0; x < depth.cols; ++x) {
            const double z = depth.at<float>(y, x);
            ASSERT_EQ(valid.at<uchar>(y, x) == 255, !std::isnan(z));
            if (std::isnan(z)) continue;
            ASSERT_NEAR(steps.at<ushort>(y, x) * unit, z, 0.5001 * unit);
            // Z = f b / (d - d_infinity); a float depth near 600 mm resolves 6e-5 mm, 1e-5 px
            ASSERT_NEAR(disparity.at<float>(y, x), infinity + f_baseline / z, 1e-4);
        }
    }
    const std::string ply = program::read(at("files/cloud.ply"));
    const std::size_t body = ply.find("end_header\n") + 11;
    ASSERT_EQ(ply.size() - body, 19 * report["pixels"]["measured"].get<std::size_t>());
    const cv::Mat sigma = cv::imread(at("files/sigma.tiff"), cv::IMREAD_UNCHANGED);
    std::size_t vertex = body;
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x) {
            if (valid.at<uchar>(y, x) != 255) continue;
            ASSERT_EQ(std::memcmp(ply.data() + vertex + 15, sigma.ptr<float>(y) + x, sizeof(float)), 0);
            vertex += 19;
        }
    for (const char* view : { "texture", "disparity", "depth", "valid" })
        EXPECT_GT(cv::imread(at("files/" + std::string(view) + "_view.png")).cols, depth.cols) << view;
}

TEST_F(Measure, SimulatedFramesReplaceALongerCaptureAndLeaveTheUsersOwnFiles)
{
    ASSERT_EQ(run("simulate plane --method multi-phase --size 64x48 --quiet --out " + at("again")).code, 0);
    ASSERT_TRUE(fs::exists(at("again/cam0/frame13.png")));
    program::write(at("again/cam0/notes.txt"), "the user's own");
    ASSERT_EQ(run("simulate spheres --size 64x48 --quiet --out " + at("again")).code, 0);
    EXPECT_FALSE(fs::exists(at("again/cam0/frame13.png")));
    EXPECT_TRUE(fs::exists(at("again/cam0/notes.txt")));
    EXPECT_NE(program::read(at("again/scene.json")).find("centres_cam0_mm"), std::string::npos);
}

TEST_F(Measure, CloudAndPageAreTheSameToTheByteForOneAndForTwoThreads)
{
    ASSERT_EQ(run("measure --quiet --threads 1 " + at("scan") + " --out " + at("one")).code, 0);
    ASSERT_EQ(run("measure --quiet --threads 2 " + at("scan") + " --out " + at("two")).code, 0);
    EXPECT_EQ(program::read(at("one/cloud.ply")), program::read(at("two/cloud.ply")));
    EXPECT_EQ(program::read(at("one/valid_view.png")), program::read(at("two/valid_view.png")));
    std::string pages[2];
    for (const bool two : { false, true }) { // the page repeats the report's time
        const std::string of = at(two ? "two" : "one"), time = Json::parse(program::read(of + "/report.json"))["time"];
        std::string& page = pages[two] = program::read(of + "/report.html");
        page.erase(page.find(time), time.size());
    }
    EXPECT_GT(pages[0].size(), 100000U);
    EXPECT_EQ(pages[0], pages[1]);
}

TEST_F(Measure, WhereNothingIsMeasuredEveryFileIsWrittenAllTheSameAndNamesTheCause)
{
    const std::string why = "every disparity lies outside [5000, 6000]: measured range";
    const Outcome empty = run("measure " + at("scan") + " --disparity 5000:6000 --accept-verdict --out " + at("none"));
    EXPECT_EQ(empty.code, 1);
    EXPECT_TRUE(empty.one_line_of_error()) << empty.err;
    EXPECT_NE(empty.err.find("no point was measured; " + why), std::string::npos) << empty.err;
    EXPECT_EQ(Json::parse(program::read(at("none/report.json")))["verdict"], "spoils");
    EXPECT_NE(program::read(at("none/cloud.ply")).find("element vertex 0\n"), std::string::npos);
    program::expect_refused(*work, "compare " + at("none") + " " + at("scan"), why, at("none/compare.json"));
    EXPECT_EQ(told("info", at("none"))["points"], 0);

    const std::string dark = copy("scan", "dark");
    for (const char* camera : { "/cam0", "/cam1" })
        fs::copy_file(
            dark + camera + "/frame00.png", dark + camera + "/frame01.png", fs::copy_options::overwrite_existing);
    const Outcome unlit = run("measure " + dark + " --out " + at("unlit"));
    EXPECT_EQ(unlit.code, 1);
    EXPECT_NE(unlit.err.find("frame00.png and frame01.png are the same picture"), std::string::npos) << unlit.err;

    fs::create_directories(at("pair/cam0")); // two pictures that have nothing in common
    fs::create_directories(at("pair/cam1"));
    fs::copy(at("scan/cameras.yaml"), at("pair/cameras.yaml"));
    fs::copy(at("scan/cam0/frame01.png"), at("pair/cam0/frame00.png"));
    cv::imwrite(at("pair/cam1/frame00.png"), cv::Mat::zeros(256, 320, CV_8U));
    const Outcome apart = run("measure --method sgbm " + at("pair") + " --out " + at("apart"));
    EXPECT_EQ(apart.code, 1) << apart.err;
    EXPECT_NE(apart.err.find("no point was measured; the two pictures fit each other nowhere"), std::string::npos);
    EXPECT_TRUE(fs::exists(at("apart/report.json")));
}

TEST_F(Measure, WithoutPicturesWritesTheSameCloudAndWhatOtherCommandsRead)
{
    ASSERT_EQ(run("measure --quiet " + at("scan") + " --out " + at("pictures")).code, 0);
    const Outcome measured = run("measure " + at("scan") + " --no-pictures --out " + at("bare"));
    ASSERT_EQ(measured.code, 0) << measured.err;
    EXPECT_EQ(measured.out.find("report.html"), std::string::npos) << measured.out;
    std::set<std::string> files;
    for (const auto& entry : fs::directory_iterator(at("bare")))
        files.insert(entry.path().filename().string());
    EXPECT_EQ(
        files, (std::set<std::string> { ".vexo-files.json", "cloud.ply", "depth.tiff", "report.json", "texture.png" }));
    for (const char* const name : { "/cloud.ply", "/depth.tiff", "/texture.png" })
        EXPECT_EQ(program::read(at("bare") + name), program::read(at("pictures") + name)) << name;
    for (const std::string& command : { "compare " + at("bare") + " " + at("scan"),
             "convert " + at("bare") + " --to " + at("bare.glb"), "table " + at("bare"), "info " + at("bare") })
        EXPECT_EQ(run(command).code, 0) << command;
}

TEST_F(Measure, DepthRangeKeepsTheSurfaceInItAndNothingElse)
{
    // The plane spans 564 to 639 mm.
    const auto share = [](const std::string& range) {
        const Outcome measured = run("measure --json " + at("scan") + " --depth " + range + " --out " + at("range"));
        return measured.code == 0 ? Json::parse(measured.out)["pixels"]["share"].get<double>() : 0.0;
    };
    const double all = share("500:700");
    EXPECT_GT(all, 0.85);
    // Limits are rounded outwards to whole pixels, and the plane spans 15 of them.
    const double sum = share("100:600") + share("600:2000");
    EXPECT_GE(sum, all);
    EXPECT_LE(sum, all * (1 + 2.0 / 15));
    EXPECT_EQ(share("100:200"), 0.0);
}

TEST_F(Measure, PatchWithoutFringesIsLeftOutAndCountedAsItsOwnCause)
{
    const std::string scan = copy("scan", "patch");
    for (int k = 9; k < 13; ++k) {
        const std::string path = program::frame_of(scan, 0, k);
        cv::Mat frame = cv::imread(path, cv::IMREAD_GRAYSCALE);
        frame(cv::Rect(100, 100, 40, 30)).setTo(255); // saturated in every phase frame
        cv::imwrite(path, frame);
    }
    const Json causes = told("measure", scan + " --out " + at("patched"))["pixels"]["not_measured"];
    // 1200 raw pixels; rectification gives them a rim of at most one pixel
    EXPECT_GE(causes["low_modulation"].get<int>(), 1200);
    EXPECT_LE(causes["low_modulation"].get<int>(), 43 * 33);
    // Its neighbours stay: at most the rest of the fringe on either side of 31 rows.
    EXPECT_LE(causes["removed_by_unwrapping"].get<int>(), 31 * 2 * 12);
}

TEST_F(Measure, EveryFailureIsOneLineThatSaysWhatIsWrongAndLeavesNothing)
{
    const std::string lacking = copy("scan", "lacking"), mixed = copy("scan", "mixed"), cut = copy("scan", "cut"),
                      giant = copy("scan", "giant");
    const std::string other = copy("scan", "other"), alone = copy("scan", "alone");
    fs::remove(lacking + "/cam1/frame07.png");
    cv::imwrite(mixed + "/cam0/frame07.png", cv::Mat(100, 100, CV_8U, cv::Scalar(7)));
    const std::string png = program::read(cut + "/cam0/frame03.png");
    program::write(cut + "/cam0/frame03.png", png.substr(0, png.size() / 2));
    program::write(giant + "/cam0/frame03.png", "P5\n30000 30000\n255\n");
    std::string yaml = program::read(other + "/cameras.yaml");
    yaml.replace(yaml.find("320"), 3, "640");
    program::write(other + "/cameras.yaml", yaml);
    fs::remove(alone + "/cameras.yaml");
    program::write(at("file"), "no folder");
    fs::create_symlink("loop", at("loop"));

    const std::string out = " --out " + at("left");
    const struct {
        std::string arguments, expected;
    } cases[] = {
        { "measure " + lacking + out, "frame07 is missing" },
        { "measure " + mixed + out, "frame07.png: 100 x 100, but" },
        { "measure " + cut + out, "frame03.png: is damaged, or no picture" },
        { "measure " + giant + out, "frame03.png: is 30000 x 30000 pixels; at most" },
        { "measure " + other + out, "cameras.yaml: cam0 is calibrated for 640 x 256, but the frames are 320 x 256" },
        { "measure " + alone + out, "cameras.yaml: there is no such file" },
        { "measure " + at("nowhere") + out, "there is no such folder" },
        { "measure " + at("scan") + " --out " + at("file/result"), "cannot be made" },
        { "measure " + at("scan") + " --calib " + at("scan/scene.json") + out, "is not a calibration file" },
        { "measure " + at("scan") + " --cam1 '" + at("scan/cam1/nothing*.png'") + out, "no pictures found" },
        { "measure " + at("scan") + " --disparity 3" + out, "--disparity 3: write two numbers" },
        { "measure " + at("scan") + " --depth 700:500" + out, "the first number must be the smaller" },
        { "measure " + at("scan") + " --depth -5:500" + out, "depths must be positive" },
        { "measure " + at("scan") + " --fit-points 4" + out, "--fit-points" },
        { "measure " + at("scan") + " --max-phase-diff nan" + out, "nan is no finite number" },
        { "measure " + at("scan") + " --out " + at("scan/cam1/"), "holds frame00.png" },
        { "measure " + at("scan") + " --force --out " + at("scan/cam1/"), "holds the frames" },
        { "measure " + at("scan") + " --out " + at("loop/result"), "loop/result: Too many levels of symbolic links" },
        { "measure " + at("scan"), "--out is required" },
        { "compare " + at("scan") + " " + at("scan"), "report.json: there is no such file" },
        { "nonsense", "see vexo --help" },
    };
    for (const auto& c : cases)
        program::expect_refused(*work, c.arguments, c.expected, at("left"));
}

TEST_F(Measure, ExchangedCamerasEndWithCode1AfterAllIsWrittenUnlessTheVerdictIsAccepted)
{
    const std::string exchanged
        = at("scan") + " --cam0 " + at("scan/cam1") + " --cam1 " + at("scan/cam0") + " --out " + at("judged");
    const Outcome spoilt = run("measure " + exchanged);
    EXPECT_EQ(spoilt.code, 1);
    EXPECT_NE(spoilt.err.find("exchange cam0 and cam1"), std::string::npos) << spoilt.err;
    EXPECT_EQ(Json::parse(program::read(at("judged/report.json")))["verdict"], "spoils");
    EXPECT_EQ(run("measure --quiet --accept-verdict " + exchanged).code, 0);
    EXPECT_EQ(run("drift --quiet " + at("judged")).code, 0); // a wall without texture says nothing of its rows
}

TEST_F(Measure, FailedCompareLeavesTheResultAsItWas)
{
    ASSERT_EQ(run("measure --quiet " + at("scan") + " --out " + at("kept")).code, 0);
    const std::string cloud = program::read(at("kept/cloud.ply"));
    program::write(at("kept/cloud.ply"), cloud.substr(0, cloud.size() / 2));
    program::expect_refused(*work, "compare " + at("kept") + " " + at("scan"), "cut short", at("kept/compare.json"));
}

TEST_F(Measure, ResultIsJudgedWithoutATruthAsItIsAgainstIt)
{
    const std::string result = at("judged_plane");
    ASSERT_EQ(run("measure --quiet " + at("scan") + " --out " + result).code, 0);
    const Json c = told("compare", result + " " + at("scan")), a = told("compare", result + " --plane")["acceptance"];
    EXPECT_EQ(a["calibration_share_mm"], "unknown") << "simulated cameras are exact";
    EXPECT_NE(a["calibration_share_unknown"].get<std::string>().find("no covariance.yaml"), std::string::npos);
    EXPECT_NEAR(a["flatness"]["ratio"].get<double>(), c["sigma"]["z_rms"].get<double>(), 0.05);
    // Depths of the truth are those of the raw camera, turned by 7.6 degrees against the rectified one.
    const double rms = c["error"]["rms_without_outliers"];
    EXPECT_NEAR(a["flatness"]["in_depth_mm"].get<double>(), rms, 0.03 * rms);
    EXPECT_EQ(a, Json::parse(program::read(result + "/acceptance.json"))["acceptance"]);
    const std::string table = run("table " + result).out;
    EXPECT_NE(table.find("rms of the depth error"), std::string::npos) << table;
    EXPECT_NE(table.find("flatness, rms"), std::string::npos) << table;
    const std::pair<std::string, int> calls[] = { { " --plane --limit 10", 0 }, { " --plane --limit 0.001", 1 },
        { " --limit 10 " + at("scan"), 0 }, { " --limit 0.001 " + at("scan"), 1 }, { "", 2 },
        { " --plane --ball 40", 2 }, { " --plane " + at("scan"), 2 }, { " --box 0 0 0 1 1 1 " + at("scan"), 2 },
        { " --ball 40", 3 }, { " --plane --box -1 -1 0 1 1 1", 3 }, { " --reference " + at("scan/scene.json"), 3 },
        { " --reference " + result + "/cloud.ply --pixel 20 20 200 200 --limit 0.01", 0 } };
    for (const auto& [arguments, code] : calls) {
        const Outcome outcome = run("compare " + result + arguments);
        EXPECT_EQ(outcome.code, code) << arguments << ": " << outcome.err;
        EXPECT_TRUE(code == 0 || outcome.one_line_of_error()) << outcome.err;
    }
    EXPECT_EQ(Json::parse(program::read(result + "/acceptance.json"))["acceptance"]["body"], "reference");
    ASSERT_EQ(run("measure --quiet " + at("scan") + " --out " + result).code, 0);
    EXPECT_FALSE(fs::exists(result + "/acceptance.json")) << "it spoke of the earlier cloud";
}

TEST_F(Measure, NamesThatAreNoUtf8AreNames)
{
    fs::copy(at("scan"), at("sc\xFF"), fs::copy_options::recursive);
    const Outcome measured = run("measure --json --threads 1000 " + at("sc\xFF") + " --out " + at("out\xFF"));
    EXPECT_EQ(measured.code, 0) << measured.err;
    EXPECT_EQ(measured.err, "");
}

TEST_F(Measure, ClosedOutputIsAnErrorAndNotAKill)
{
    for (const char* command : { "info ", "info --json " }) {
        const Outcome full = run(command + at("scan/cameras.yaml") + " > /dev/full");
        EXPECT_EQ(full.code, 75) << command;
        EXPECT_TRUE(full.one_line_of_error()) << full.err;
    }
}

TEST_F(Measure, RealCapturesMatchASharePerPictureAndTheDepthsThatAPlainDecoderGets)
{
    const std::string real = std::string(VEXO_SOURCE_DIR) + "/../shared/realdata";
    if (!fs::exists(real)) GTEST_SKIP() << "no real captures beside the source";
    const struct {
        std::string name, options;
        double share, tolerance, q01, q50, q99;
    } sets[] = { { "render_stereo_bust", "", 0.29, 0.01, 507, 554, 644 },
        { "gyps_stereo_dental", " --disparity -400:400", 0.58, 0.03, 322, 354, 516 } };
    for (const auto& set : sets) {
        const Json report = told("measure", real + "/" + set.name + set.options + " --out " + at(set.name));
        EXPECT_GE(report["pixels"]["share"].get<double>(), set.share) << set.name;
        EXPECT_NEAR(report["depth"]["q01"].get<double>(), set.q01, set.tolerance * set.q01) << set.name;
        EXPECT_NEAR(report["depth"]["q50"].get<double>(), set.q50, set.tolerance * set.q50) << set.name;
        EXPECT_NEAR(report["depth"]["q99"].get<double>(), set.q99, set.tolerance * set.q99) << set.name;
    }
}

} // namespace
