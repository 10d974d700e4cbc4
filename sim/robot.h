#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "sim/output.h"

namespace vexo {
namespace sim {

/// A robot that moved the board, or the cameras, from photo to photo.
struct RobotOptions {
    bool moves_camera = true; ///< eye in hand; else it moves the board
    double noise_mm = 0.1;    ///< standard deviation of each coordinate that it says of the gripper
    double noise_deg = 0.02;  ///< of its turn about each axis
};

/// Null for a robot that can be had, else the options' first fault.
const char* why_invalid(const RobotOptions& robot) noexcept;

/// Where the robot said its gripper was at each photo, as a text of lines: the photo's name, place in mm and unit
/// quaternion of base_from_gripper.
/// @param camera0_from_board  by photo
std::string robot_poses_text(
    const RobotOptions& robot, const std::vector<cv::Matx44d>& camera0_from_board, std::uint64_t seed);

/// The truth: camera 0 in the gripper's frame and the board in the base's, or the other way round.
Json robot_json(const RobotOptions& robot);

} // namespace sim
} // namespace vexo
