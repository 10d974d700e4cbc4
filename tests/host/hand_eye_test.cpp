#include "host/cameras/hand_eye.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <cmath>
#include <random>

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

} // namespace
