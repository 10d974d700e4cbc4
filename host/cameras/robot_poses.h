#pragma once

#include "host/cameras/robot_columns.h"
#include "host/cameras/robot_rotation.h"

#include <opencv2/core.hpp>
#include <opencv2/core/affine.hpp>

#include <optional>
#include <string>
#include <vector>

/// Files with poses of a robot.
namespace vexo {

/// One line: which picture was taken at which pose. Numbers as in the file.
struct RobotPoseRow {
    int line = 0; ///< from 1
    std::string picture;
    cv::Vec3d place;
    std::vector<double> rotation; ///< 3, 4 or 9 numbers
};

/// The lines, and what the columns say of themselves.
struct RobotPoseFile : StatedColumns {
    std::string path;
    std::vector<RobotPoseRow> rows;
};

/// Reads lines of numbers between commas, semicolons or blanks; a point is the decimal sign whatever the locale is, and
/// "#" begins a comment. The first line names the columns, in any order: `picture` (a name or the number in it), x y z,
/// and qx qy qz qw, or rx ry rz (roll pitch yaw, a b c), or m00 to m33. Without names they are the picture, x y z and
/// the rotation, or the picture and 16 numbers of a 4 x 4 row by row.
/// Throws Failure that names the line: a number that is none, missing or surplus ones, a picture that comes twice, a
/// matrix that is no pose.
RobotPoseFile read_robot_poses(const std::string& path);

/// How the numbers of a file are read.
struct PoseReading {
    RotationForm rotation;
    double unit_mm = 1.0;             ///< 1000 for metres
    bool inverse = false;             ///< the file has gripper_from_base
    bool transposed = false;          ///< its rotations alone are gripper_from_base, as of conjugated quaternions
    std::vector<std::string> guessed; ///< clauses that say what was neither asked for nor named by the file
};

/// What a caller says of the file; what it leaves out the file says, or is guessed.
struct PoseReadingRequest {
    std::string rotation = {}; ///< for rotation_form_named(); empty: not said
    std::optional<bool> degrees = {};
    std::optional<double> unit_mm = {};
    bool inverse = false;
    bool transposed = false;
};

/// Angles above 6.5 are degrees; places that are all within 20 are metres. Throws UsageFailure where nothing says what
/// kind of rotation the numbers are, or where they cannot be what is said; Failure that names the line of a rotation
/// that is none.
PoseReading reading_of(const RobotPoseFile& file, const PoseReadingRequest& request);

/// "quaternions xyzw, mm, the gripper in the base".
std::string describe(const PoseReading& reading);

/// base_from_gripper in mm, nothing where the numbers are no such rotation.
std::optional<cv::Affine3d> robot_pose(const RobotPoseRow& row, const PoseReading& reading);

} // namespace vexo
