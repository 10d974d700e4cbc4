#include "program.h"

#include <opencv2/core.hpp>

#include <cmath>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

/// Photos of the coarse board by a rig that a robot moves, the truth about them, and a calibration.
class HandEye : public program::Suite {
protected:
    static void SetUpTestSuite()
    {
        Suite::SetUpTestSuite();
        const std::string photos = "simulate calibration --size 640x512 --quiet --views 12 --board " + at("board.yaml");
        made = run("board --quiet --preset coarse --out " + at("board.svg"));
        if (made.code == 0) made = run(photos + " --robot eye-in-hand --out " + at("photos"));
        if (made.code == 0)
            made = run("calibrate --quiet --board " + at("board.yaml") + " --out " + at("calib") + " " + at("photos"));
    }
    void SetUp() override { ASSERT_EQ(made.code, 0) << made.err; }

    static std::string arguments(
        const std::string& poses, const std::string& more = "", const std::string& out = "hand")
    {
        return "handeye --board " + at("board.yaml") + " --photos " + at("photos") + " --calib " + at("calib")
            + " --poses " + poses + " --out " + at(out) + " " + more;
    }

    /// The poses with each line's fields in another order.
    static std::string reordered(
        const std::string& name, const std::vector<std::size_t>& order, std::size_t left_out = 99)
    {
        std::istringstream lines(program::read(at("photos/poses.csv")));
        std::string text, line;
        for (std::size_t n = 0; std::getline(lines, line); ++n) {
            if (n == 0 || n == left_out) continue;
            std::vector<std::string> fields(1);
            for (const char c : line)
                c == ',' ? fields.emplace_back() : fields.back() += c;
            for (std::size_t i = 0; i < order.size(); ++i)
                text += (i > 0 ? ";" : "") + fields[order[i]];
            text += "\n";
        }
        program::write(at(name), text);
        return at(name);
    }

    static cv::Vec3d column(const Json& rows, std::size_t k) { return { rows[0][k], rows[1][k], rows[2][k] }; }

    inline static program::Outcome made;
};

TEST_F(HandEye, FindsTheSimulatedCameraWithinItsOwnSigmaInRawAndRectifiedAxes)
{
    const Json truth = Json::parse(program::read(at("photos/truth.json")))["robot"];
    const Json found = Json::parse(run(arguments(at("photos/poses.csv"), "--json")).out);
    EXPECT_EQ(found["setup"], "eye-in-hand");
    const cv::Vec3d off = column(found["gripper_from_camera0"], 3) - column(truth["gripper_from_camera0"], 3);
    for (std::size_t k = 0; k < 3; ++k) {
        EXPECT_LT(std::abs(off[static_cast<int>(k)]), 4 * found["sigma"]["translation_mm"][k].get<double>());
        EXPECT_LT(found["sigma"]["translation_mm"][k].get<double>(), 0.15); // 0.1 mm of the robot, by 12 poses
        // A turn's sine against sigma; the camera's axes are columns of the matrix.
        const cv::Vec3d axis = column(found["gripper_from_camera0"], k),
                        real = column(truth["gripper_from_camera0"], k);
        EXPECT_LT(cv::norm(axis.cross(real)) * 180 / CV_PI, 0.05);
    }
    const cv::FileStorage yaml(at("hand/handeye.yaml"), cv::FileStorage::READ);
    const cv::Matx44d raw(yaml["gripper_from_camera0"].mat()), rectified(yaml["gripper_from_rectified0"].mat());
    const cv::FileStorage stereo(at("calib/stereo.yaml"), cv::FileStorage::READ);
    const cv::Matx33d rotation(stereo["cam0_R2"].mat());
    const cv::Matx33d turned = raw.get_minor<3, 3>(0, 0) * rotation.t();
    EXPECT_LT(cv::norm(turned - rectified.get_minor<3, 3>(0, 0)), 1e-6);
    EXPECT_EQ(cv::norm(raw.col(3) - rectified.col(3)), 0.0);
    EXPECT_EQ(std::string(yaml["verdict"]), found["verdict"].get<std::string>());
}

TEST_F(HandEye, SaysWhichConventionFitsAndListsWhatHasNoPartner)
{
    const std::string right = reordered("wxyz.csv", { 0, 1, 2, 3, 7, 4, 5, 6 }, 5);
    const program::Outcome good = run(arguments(right, "--rotation wxyz --setup eye-in-hand"));
    EXPECT_EQ(good.code, 0) << good.err;
    EXPECT_NE(good.out.find("photos without a pose: view04.png"), std::string::npos) << good.out;
    const program::Outcome wrong = run(arguments(right, "--rotation xyzw"));
    EXPECT_EQ(wrong.code, 1);
    EXPECT_NE(wrong.err.find("--rotation wxyz"), std::string::npos) << wrong.err;
    const program::Outcome other = run(arguments(at("photos/poses.csv"), "--setup eye-to-hand"));
    EXPECT_EQ(other.code, 1);
    EXPECT_NE(other.err.find("--setup eye-in-hand"), std::string::npos) << other.err;
}

TEST_F(HandEye, RefusesWhatCannotBeSolvedAndWritesNothing)
{
    const std::string unnamed = reordered("unnamed.csv", { 0, 1, 2, 3, 4, 5, 6, 7 }), out = at("none");
    const auto refused = [&](const std::string& poses, const std::string& more, const std::string& why) {
        program::expect_refused(*work, arguments(poses, more, "none"), why, out);
    };
    refused(unnamed, "", "--rotation xyzw or wxyz");
    refused(unnamed, "--rotation ZYX", "4 numbers");
    refused(at("no.csv"), "", "no.csv");
    refused(at("board.yaml"), "", "line 1");
    program::write(at("others.csv"), "picture,x,y,z,qx,qy,qz,qw\nview77.png,0,0,0,0,0,0,1\n");
    refused(at("others.csv"), "", "0 of 1 poses have a photo");
    program::write(at("few.csv"), "picture,x,y,z,qx,qy,qz,qw\n0,0,0,0,0,0,0,1\n1,100,0,0,0,0,0,1\n");
    refused(at("few.csv"), "", "at least 4");
    std::string still = "picture,x,y,z,qx,qy,qz,qw\n";
    for (int i = 0; i < 12; ++i)
        still += std::to_string(i) + "," + std::to_string(100 * i) + ",0,0,0,0,0,1\n";
    program::write(at("still.csv"), still);
    const program::Outcome unlike = run(arguments(at("still.csv")));
    EXPECT_EQ(unlike.code, 1);
    EXPECT_NE(unlike.err.find("turns by 0.0 degrees, the photos say"), std::string::npos) << unlike.err;
}

} // namespace
