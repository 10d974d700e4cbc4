#include "sim/robot.h"

#include <cmath>

#include "sim/noise.h"
#include "sim/poses.h"

namespace vexo {
namespace sim {

namespace {
constexpr double rad_per_deg = CV_PI / 180;

/// A unit quaternion x y z w.
using Quaternion = cv::Vec4d;

cv::Matx33d rotation_of(const Quaternion& q)
{
    const cv::Matx33d cross(0, -q[2], q[1], q[2], 0, -q[0], -q[1], q[0], 0);
    return cv::Matx33d::eye() + 2 * q[3] * cross + 2 * (cross * cross);
}

Quaternion turn(const cv::Vec3d& axis_times_angle)
{
    const double angle = cv::norm(axis_times_angle);
    const cv::Vec3d v = angle > 0 ? axis_times_angle * (std::sin(angle / 2) / angle) : cv::Vec3d();
    return { v[0], v[1], v[2], std::cos(angle / 2) };
}

/// Camera 0 on a flange, some way from its middle and turned against it; or before the robot, looking at it.
cv::Matx44d true_camera(const RobotOptions& robot)
{
    return robot.moves_camera ? pose_of(rotation_of(turn({ 0.21, -0.13, 1.52 })), { 62, -85, 140 })
                              : pose_of(rotation_of(turn({ -1.71, 0.52, 0.44 })), { 1150, -420, 610 });
}

/// The board on a table, or on a flange.
cv::Matx44d true_board(const RobotOptions& robot)
{
    return robot.moves_camera ? pose_of(rotation_of(turn({ 0.04, -0.03, 0.8 })), { 640, 120, 35 })
                              : pose_of(rotation_of(turn({ 0.1, 0.05, -0.6 })), { -70, -90, 55 });
}

Json rows_of(const cv::Matx44d& m)
{
    Json rows = Json::array();
    for (int r = 0; r < 4; ++r)
        rows.push_back({ m(r, 0), m(r, 1), m(r, 2), m(r, 3) });
    return rows;
}
} // namespace

const char* why_invalid(const RobotOptions& robot) noexcept
{
    if (!(robot.noise_mm >= 0 && robot.noise_mm <= 100)) return "the robot's noise must be 0 to 100 mm";
    if (!(robot.noise_deg >= 0 && robot.noise_deg <= 10)) return "the robot's noise must be 0 to 10 degrees";
    return nullptr;
}

std::string robot_poses_text(
    const RobotOptions& robot, const std::vector<cv::Matx44d>& camera0_from_board, std::uint64_t seed)
{
    const cv::Matx44d camera = true_camera(robot), board = true_board(robot);
    std::vector<NamedPose> poses;
    for (std::size_t i = 0; i < camera0_from_board.size(); ++i) {
        const cv::Matx44d& seen = camera0_from_board[i];
        const cv::Matx44d gripper
            = robot.moves_camera ? board * inverse(seen) * inverse(camera) : camera * seen * inverse(board);
        constexpr int stream = 2; // 0 and 1 are the cameras'
        const std::uint64_t key = noise_key(seed, stream, static_cast<int>(i));
        const auto drawn = [key](std::uint64_t first, double sigma) {
            return sigma * cv::Vec3d(normal_of(key, first), normal_of(key, first + 1), normal_of(key, first + 2));
        };
        const cv::Vec3d place = cv::Vec3d(gripper(0, 3), gripper(1, 3), gripper(2, 3)) + drawn(0, robot.noise_mm);
        const cv::Matx33d rotation
            = gripper.get_minor<3, 3>(0, 0) * rotation_of(turn(drawn(3, robot.noise_deg * rad_per_deg)));
        poses.push_back({ picture_name(0, "view", static_cast<int>(i)).substr(5), pose_of(rotation, place) });
    }
    return poses_text(poses);
}

Json robot_json(const RobotOptions& robot)
{
    const bool in_hand = robot.moves_camera;
    return { { "setup", in_hand ? "eye-in-hand" : "eye-to-hand" },
        { in_hand ? "gripper_from_camera0" : "base_from_camera0", rows_of(true_camera(robot)) },
        { in_hand ? "base_from_board" : "gripper_from_board", rows_of(true_board(robot)) },
        { "noise_mm", robot.noise_mm }, { "noise_deg", robot.noise_deg } };
}

} // namespace sim
} // namespace vexo
