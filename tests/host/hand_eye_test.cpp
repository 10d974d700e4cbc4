#include "base/failure.h"
#include "host/cameras/find_hand_eye.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <cmath>
#include <fstream>
#include <random>
#include <sstream>

namespace {

using namespace vexo;

constexpr double deg = CV_PI / 180;
const cv::Affine3d true_camera(cv::Vec3d(0.3, -0.2, 1.4), cv::Vec3d(40, -70, 120));
const cv::Affine3d true_board(cv::Vec3d(2.9, 0.3, -0.2), cv::Vec3d(500, 120, 30));
const cv::Vec3d middle(108, 84, 0);

/// What noise there is, one standard deviation: of the robot and of the board's poses.
struct Noise {
    RobotNoise robot { 0.1, 0.02 * deg };
    double board_mm = 0.02, board_rad = 0.01 * deg;
};

class Rig {
public:
    Rig(HandEyeSetup setup, unsigned seed, const Noise& noise, double most_turn_deg = 35)
        : _noise(noise)
        , _random(seed)
    {
        for (int i = 0; i < 15; ++i) {
            const double a = 2.4 * i, tilt = most_turn_deg * deg * (0.4 + 0.6 * std::fmod(0.618 * i, 1.0));
            const cv::Affine3d facing(cv::Vec3d(CV_PI, 0, 0), cv::Vec3d(-100, 80, 560 + 10.0 * i));
            const cv::Affine3d turned(tilt * cv::Vec3d(std::cos(a), std::sin(a), 0.6 * std::sin(2 * a)));
            const cv::Affine3d seen = facing * turned;
            HandEyePose pose;
            const cv::Affine3d robot = setup == HandEyeSetup::eye_in_hand ? true_board * seen.inv() * true_camera.inv()
                                                                          : true_camera * seen * true_board.inv();
            pose.base_from_gripper = shaken(robot, noise.robot.translation_mm, noise.robot.rotation_rad);
            pose.board_rvec = seen.rvec();
            pose.board_tvec = seen.translation() + drawn(noise.board_mm);
            cv::Rodrigues(seen.rotation() * cv::Affine3d(drawn(noise.board_rad)).rotation(), pose.board_rvec);
            pose.board_covariance = covariance_of(pose.board_rvec);
            poses.push_back(pose);
        }
    }

    std::vector<HandEyePose> poses;

private:
    cv::Vec3d drawn(double sigma)
    {
        std::normal_distribution<double> one;
        return sigma * cv::Vec3d(one(_random), one(_random), one(_random));
    }

    cv::Affine3d shaken(const cv::Affine3d& pose, double mm, double rad)
    {
        return { pose.rotation() * cv::Affine3d(drawn(rad)).rotation(), pose.translation() + drawn(mm) };
    }

    /// A turn of equal sigma about all axes, as a covariance of the Rodrigues vector.
    cv::Matx66d covariance_of(const cv::Vec3d& rvec) const
    {
        cv::Matx33d slopes; // of the turn by the vector
        for (int k = 0; k < 3; ++k) {
            cv::Vec3d more = rvec;
            more[k] += 1e-5;
            const cv::Matx33d R = cv::Affine3d(rvec).rotation().t() * cv::Affine3d(more).rotation();
            for (int row = 0; row < 3; ++row)
                slopes(row, k) = 0.5e5 * (R((row + 2) % 3, (row + 1) % 3) - R((row + 1) % 3, (row + 2) % 3));
        }
        const cv::Matx33d turn = (slopes.t() * slopes).inv() * std::pow(_noise.board_rad, 2);
        cv::Matx66d covariance = cv::Matx66d::eye() * std::pow(_noise.board_mm, 2);
        for (int row = 0; row < 3; ++row)
            for (int k = 0; k < 3; ++k)
                covariance(row, k) = turn(row, k);
        return covariance;
    }

    Noise _noise;
    std::mt19937 _random;
};

/// Squared errors of the camera: of its place, mm^2, and of its turn, degrees^2.
cv::Vec2d squares(const HandEye& found)
{
    const cv::Vec3d t = found.camera.translation() - true_camera.translation();
    const double r = cv::norm(true_camera.rotation() - found.camera.rotation()) / std::sqrt(2.0); // of small turns
    return { t.dot(t), r * r / (deg * deg) };
}

cv::Vec2d bound(const HandEye& found)
{
    const cv::Vec3d t = found.translation_sigma_mm(), r = found.rotation_sigma_deg();
    return { t.dot(t), r.dot(r) };
}

TEST(HandEye, IsNoFartherOffThanTheBestUnbiasedEstimateAndSaysSoItself)
{
    for (const HandEyeSetup setup : { HandEyeSetup::eye_in_hand, HandEyeSetup::eye_to_hand }) {
        const Noise noise;
        Rig exact(setup, 1, { { 0, 0 }, 0, 0 });
        const std::vector<HandEyePose> noisy = Rig(setup, 1, noise).poses;
        for (std::size_t i = 0; i < noisy.size(); ++i)
            exact.poses[i].board_covariance = noisy[i].board_covariance;
        const cv::Vec2d best = bound(solve_hand_eye(exact.poses, setup, noise.robot).value());
        cv::Vec2d off, closed, said;
        double robot_mm = 0, robot_rad = 0;
        constexpr int trials = 100;
        for (unsigned seed = 1; seed <= trials; ++seed) {
            const Rig rig(setup, seed, noise);
            const HandEye found = solve_hand_eye(rig.poses, setup).value();
            off += squares(found) / trials;
            closed += squares(closed_hand_eye(rig.poses, setup).value()) / trials;
            said += bound(found) / trials;
            robot_mm += found.noise.translation_mm / trials;
            robot_rad += found.noise.rotation_rad / trials;
        }
        for (int k = 0; k < 2; ++k) { // of 300 numbers, not all independent, an rms is known to 6 %
            EXPECT_LT(std::sqrt(off[k] / best[k]), 1.15) << name_of(setup) << k;
            EXPECT_LT(off[k], closed[k]) << name_of(setup) << k;
            EXPECT_NEAR(std::sqrt(said[k] / best[k]), 1.0, 0.1) << name_of(setup) << k;
        }
        EXPECT_NEAR(robot_mm, noise.robot.translation_mm, 0.01);
        EXPECT_NEAR(robot_rad, noise.robot.rotation_rad, 0.002 * deg);
    }
}

TEST(HandEye, IsExactForExactPosesAndNothingForPosesThatDetermineNoCamera)
{
    for (const HandEyeSetup setup : { HandEyeSetup::eye_in_hand, HandEyeSetup::eye_to_hand }) {
        Rig rig(setup, 1, { { 0, 0 }, 0, 0 });
        const HandEye found = solve_hand_eye(rig.poses, setup).value();
        EXPECT_LT(squares(found)[0], 1e-12);
        EXPECT_LT(squares(found)[1], 1e-14);
        EXPECT_LT(found.residual(rig.poses[3], middle).mm, 1e-6);
        rig.poses.resize(2);
        EXPECT_FALSE(solve_hand_eye(rig.poses, setup));
        rig.poses.assign(9, rig.poses[0]); // one pose, nine times
        EXPECT_FALSE(solve_hand_eye(rig.poses, setup));
    }
}

std::string csv_text(const std::vector<double>& numbers)
{
    std::ostringstream text;
    text.precision(12);
    for (const double number : numbers)
        text << ',' << number;
    return text.str();
}

/// Angles about x, y and z of R = Rz Ry Rx.
cv::Vec3d angles_of(const cv::Matx33d& R)
{
    return { std::atan2(R(2, 1), R(2, 2)), std::asin(-R(2, 0)), std::atan2(R(1, 0), R(0, 0)) };
}

/// The numbers of a pose as some robot writes them.
using Writer = std::string (*)(const cv::Affine3d&);
std::string place(const cv::Affine3d& pose, double unit)
{
    const cv::Vec3d t = unit * pose.translation();
    return csv_text({ t[0], t[1], t[2] });
}
cv::Vec4d quaternion(const cv::Affine3d& pose)
{
    const cv::Vec3d r = pose.rvec();
    const double half = 0.5 * cv::norm(r);
    const cv::Vec3d v = r * (std::sin(half) / (2 * half));
    return { v[0], v[1], v[2], std::cos(half) };
}
std::string as_xyzw(const cv::Affine3d& pose)
{
    const cv::Vec4d q = quaternion(pose);
    return place(pose, 1) + csv_text({ q[0], q[1], q[2], q[3] });
}
std::string as_wxyz(const cv::Affine3d& pose)
{
    const cv::Vec4d q = quaternion(pose);
    return place(pose, 1) + csv_text({ q[3], q[0], q[1], q[2] });
}
std::string as_zyx_degrees(const cv::Affine3d& pose)
{
    const cv::Vec3d a = angles_of(pose.rotation()) / deg;
    return place(pose, 1) + csv_text({ a[2], a[1], a[0] });
}
std::string as_vector_metres(const cv::Affine3d& pose)
{
    return place(pose, 1e-3) + csv_text({ pose.rvec()[0], pose.rvec()[1], pose.rvec()[2] });
}
std::string as_matrix(const cv::Affine3d& pose)
{
    return csv_text({ pose.matrix.val, pose.matrix.val + 16 });
}

struct Written {
    explicit Written(const std::vector<HandEyePose>& poses, const std::string& header, Writer writer)
    {
        std::string text = header;
        for (std::size_t i = 0; i < poses.size(); ++i)
            text += std::to_string(i) + writer(poses[i].base_from_gripper) + "\r\n";
        std::ofstream(path, std::ios::binary) << text;
        views.resize(poses.size());
        const RobotPoseFile file = read_robot_poses(path);
        for (std::size_t i = 0; i < poses.size(); ++i)
            views[i] = { "view" + file.rows[i].picture, file.rows[i], poses[i] };
    }

    FoundHandEye find(const PoseReadingRequest& as, std::optional<HandEyeSetup> setup) const
    {
        return find_hand_eye(views, { reading_of(read_robot_poses(path), as), setup, middle });
    }

    Folder folder;
    std::string path = folder / "poses.csv";
    std::vector<HandEyeView> views;
};

std::string text_of(const FoundHandEye& found, const std::string& name)
{
    std::string text;
    for (const Finding& finding : found.findings)
        if (finding.name == name) text += sentence(finding) + "\n";
    return text;
}

TEST(HandEyePoses, AreReadAlikeInEveryConventionAndUnit)
{
    const std::vector<HandEyePose> poses = Rig(HandEyeSetup::eye_in_hand, 3, {}).poses;
    struct Case {
        std::string header, rotation;
        Writer writer;
    };
    for (const Case& c : { Case { "picture,x,y,z,qx,qy,qz,qw\n", "", as_xyzw }, Case { "", "wxyz", as_wxyz },
             Case { "# KUKA\nNr, X (mm), Y (mm), Z (mm), A (deg), B (deg), C (deg)\n", "ZYX", as_zyx_degrees },
             Case { "name,x,y,z,rz,ry,rx\n", "xyz", as_zyx_degrees }, Case { "", "ZYX", as_zyx_degrees },
             Case { "file,x_m,y_m,z_m,rx,ry,rz\n", "vector", as_vector_metres }, Case { "", "", as_matrix } }) {
        const Written written(poses, c.header, c.writer);
        const RobotPoseFile file = read_robot_poses(written.path);
        const PoseReading reading = reading_of(file, { c.rotation });
        PoseReading inverse = reading;
        inverse.inverse = true;
        for (std::size_t i = 0; i < poses.size(); ++i) {
            const cv::Affine3d found = robot_pose(file.rows[i], reading).value();
            EXPECT_LT(cv::norm(found.matrix - poses[i].base_from_gripper.matrix), 1e-6) << c.header << c.rotation;
            EXPECT_LT(cv::norm((robot_pose(file.rows[i], inverse).value() * found).matrix - cv::Matx44d::eye()), 1e-6);
        }
    }
}

TEST(HandEyePoses, OfEulerAnglesAreProductsOfTurnsAboutTheNamedAxes)
{
    const auto about = [](double x, double y, double z) {
        cv::Matx33d R;
        cv::Rodrigues(cv::Vec3d(x, y, z), R);
        return R;
    };
    const std::vector<double> a { 0.3, -0.7, 1.9 };
    const auto is = [&](const char* name, const cv::Matx33d& R) {
        return cv::norm(*rotation_of(*rotation_form_named(name), a) - R) < 1e-12;
    };
    EXPECT_TRUE(is("XYZ", about(0.3, 0, 0) * about(0, -0.7, 0) * about(0, 0, 1.9)));
    EXPECT_TRUE(is("xyz", about(0, 0, 1.9) * about(0, -0.7, 0) * about(0.3, 0, 0)));
    EXPECT_TRUE(is("ZYZ", about(0, 0, 0.3) * about(0, -0.7, 0) * about(0, 0, 1.9)));
    EXPECT_TRUE(is("vector", about(0.3, -0.7, 1.9)));
    for (const char* wrong : { "XYy", "XXY", "xyzx", "", "wzyx", "XyZ" })
        EXPECT_FALSE(rotation_form_named(wrong)) << wrong;
}

TEST(HandEyePoses, ThatAreDamagedAreRefusedByTheirLine)
{
    const Folder folder;
    const std::string path = folder / "poses.csv", head = "picture,x,y,z,qx,qy,qz,qw\n", good = "1,0,0,0,0,0,0,1\n";
    const auto why = [&](const std::string& text, const PoseReadingRequest& as = {}) -> std::string {
        std::ofstream(path, std::ios::binary) << text;
        std::string said;
        EXPECT_THROW(
            {
                try {
                    reading_of(read_robot_poses(path), as);
                } catch (const Failure& failure) {
                    said = failure.what();
                    throw;
                }
            },
            Failure)
            << text;
        return said;
    };
    const std::string matrix = "1,0,0,5,0,1,0,6,0,0,1,7,0,0,0,1\n";
    const std::pair<std::string, std::string> cases[] = { { head + good + "2,0,0,zero,0,0,0,1\n", "line 3: \"zero\"" },
        { head + good + "2,0,0,nan,0,0,0,1\n", "line 3: \"nan\"" },
        { head + good + "2,0,0,0,0,0,1\n", "line 3: it has 7" },
        { head + good + good, "line 3: picture 1 comes twice" },
        { head + "1,0,0,0,0,0,0,2\n", "line 2: the quaternion" }, { "1;0,5;0;0;0;0;0;1\n", "decimal point" },
        { head, "no pose" }, { good, "xyzw or wxyz" }, { "x,y,z,qx,qy,qz,qw\n0,0,0,0,0,0,1\n", "which picture" },
        { "1,0,0,0,0,0,0\n", "--rotation vector" },
        { "picture,x,y,z,qx,qy,qz\n1,0,0,0,0,0,0\n", "line 1: name the columns" },
        { "picture,x_mm,y_m,z,qx,qy,qz,qw\n1,0,0,0,0,0,0,1\n", "unit of column y_m" }, { "1,2,3\n", "3 fields" },
        { "1,1,0,0,0,0,1,0,0,0,0,1,0,5,6,7,1\n", "transposed" },
        { "1,1,0,0,5,0,2,0,6,0,0,1,7,0,0,0,1\n", "line 1: the first" },
        { "picture,x,y,z,x,qx,qy,qz,qw\n", "line 1: two columns" } };
    for (const auto& [text, part] : cases)
        EXPECT_NE(why(text).find(part), std::string::npos) << why(text);
    EXPECT_NE(why("1," + matrix, { "ZYX" }).find("4 x 4"), std::string::npos);
    EXPECT_NE(why(head + good, { "ZYX" }).find("4 numbers"), std::string::npos);
    EXPECT_NE(why(head + good, { "ZYQ" }).find("ZYX (turning axes)"), std::string::npos);
}

TEST(HandEyeChecks, FindTheConventionThatFitsAndAreContentWithTheRightOne)
{
    const Rig in_hand(HandEyeSetup::eye_in_hand, 5, {}), to_hand(HandEyeSetup::eye_to_hand, 5, {});
    const std::string named = "picture,x,y,z,rz,ry,rx\n";
    struct Case {
        std::string header;
        Writer writer;
        PoseReadingRequest right, wrong;
        std::string advice;
    };
    PoseReadingRequest radians { "ZYX" }, metres { "xyzw" }, transposed { "xyzw" };
    transposed.transposed = true;
    radians.degrees = false;
    metres.unit_mm = 1000;
    for (const Case& c : { Case { "", as_xyzw, { "xyzw" }, { "wxyz" }, "--rotation xyzw" },
             Case { "", as_xyzw, { "xyzw" }, metres, "--unit mm" },
             Case { "", as_xyzw, { "xyzw" }, transposed, "they would fit" },
             Case { named, as_zyx_degrees, { "ZYX" }, { "XYZ" }, "--rotation ZYX --angles degrees" },
             Case { named, as_zyx_degrees, { "ZYX" }, radians, "--rotation ZYX --angles degrees" },
             Case { "", as_zyx_degrees, { "ZYX" }, { "ZYZ" }, "--rotation ZYX --angles degrees" },
             Case { "", as_vector_metres, { "vector" }, { "xyz" }, "--rotation vector --angles radians --unit m" } }) {
        const Written written((c.header.empty() ? in_hand : to_hand).poses, c.header, c.writer);
        const FoundHandEye right = written.find(c.right, {}), wrong = written.find(c.wrong, {});
        EXPECT_NE(heaviest(right.findings), Weight::spoils) << text_of(right, "convention");
        EXPECT_LT(squares(right.solved)[0], 1.0);
        EXPECT_EQ(heaviest(wrong.findings), Weight::spoils);
        EXPECT_NE(text_of(wrong, "convention").find(c.advice), std::string::npos) << text_of(wrong, "convention");
    }
    const Written written(in_hand.poses, "", as_matrix);
    const FoundHandEye exchanged = written.find({}, HandEyeSetup::eye_to_hand);
    EXPECT_NE(text_of(exchanged, "convention").find("--setup eye-in-hand"), std::string::npos);
    EXPECT_NE(text_of(exchanged, "convention").find("--setup eye-to-hand --unit mm --inverse"), std::string::npos);
    Rig shifted = in_hand;
    for (std::size_t i = 0; i + 1 < shifted.poses.size(); ++i)
        shifted.poses[i].base_from_gripper = shifted.poses[i + 1].base_from_gripper;
    EXPECT_NE(
        text_of(Written(shifted.poses, "", as_matrix).find({}, {}), "convention").find("number poses and pictures"),
        std::string::npos);
}

TEST(HandEyeChecks, NameThePoseThatIsWrongAndRefusePosesThatTurnTooLittle)
{
    Rig rig(HandEyeSetup::eye_to_hand, 7, {});
    const FoundHandEye right = Written(rig.poses, "", as_matrix).find({}, {});
    EXPECT_EQ(text_of(right, "pose") + text_of(right, "scale"), "");
    Rig small = rig;
    for (HandEyePose& pose : small.poses)
        pose.board_tvec *= 0.98;
    const FoundHandEye scaled = Written(small.poses, "", as_matrix).find({}, {});
    EXPECT_EQ(heaviest(scaled.findings), Weight::spoils);
    // 1 / 0.98, by poses that say it to 0.2 %.
    EXPECT_NEAR(std::stod("0" + text_of(scaled, "scale").substr(std::string("with a board ").size())), 2.04, 0.6);
    EXPECT_NE(text_of(scaled, "scale").find("larger"), std::string::npos);
    EXPECT_LT(right.held_out_rms.mm, 0.6);
    EXPECT_GT(right.held_out_rms.mm, right.rms.mm);
    rig.poses[6].base_from_gripper = rig.poses[6].base_from_gripper.translate({ 4, 0, 0 });
    const FoundHandEye wrong = Written(rig.poses, "", as_matrix).find({}, {});
    EXPECT_EQ(wrong.worst[0], 6U);
    EXPECT_EQ(text_of(wrong, "pose").rfind("view6: ", 0), 0U) << text_of(wrong, "pose");
    std::swap(rig.poses[6].base_from_gripper, rig.poses[11].base_from_gripper);
    const FoundHandEye exchanged = Written(rig.poses, "", as_matrix).find({}, {});
    EXPECT_EQ(text_of(exchanged, "strays").rfind("all poses but view6, view11 fit", 0), 0U)
        << text_of(exchanged, "strays") << text_of(exchanged, "convention");
    const Written flat(Rig(HandEyeSetup::eye_in_hand, 1, {}, 1.0).poses, "", as_matrix);
    EXPECT_THROW(flat.find({}, {}), Failure);
    rig.poses.resize(3);
    EXPECT_THROW(Written(rig.poses, "", as_matrix).find({}, {}), Failure);
}

} // namespace
