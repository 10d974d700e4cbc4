#pragma once

#include <opencv2/core.hpp>
#include <opencv2/core/affine.hpp>

#include <optional>
#include <vector>

/// Where a camera stands in the frame of a robot.
namespace vexo {

/// What the robot moves; the other one stands still in its base.
enum class HandEyeSetup {
    eye_in_hand, ///< the camera; the board is fixed
    eye_to_hand  ///< the board; the camera is fixed
};

/// "eye-in-hand", "eye-to-hand".
const char* name_of(HandEyeSetup setup);
HandEyeSetup other(HandEyeSetup setup);

/// One pose of the robot, and what the camera saw of the board there. Lengths in mm.
struct HandEyePose {
    cv::Affine3d base_from_gripper; ///< as the robot says
    cv::Vec3d board_rvec;           ///< Rodrigues vector of camera_from_board
    cv::Vec3d board_tvec;           ///< mm
    /// Of board_rvec and board_tvec, rad and mm: (J^T J / sigma^2)^-1 of the markers' reprojection, so that the sum of
    /// squared reprojection errors is quadratic about the board's pose with this matrix. May be 0: not known.
    cv::Matx66d board_covariance = cv::Matx66d::zeros();

    cv::Affine3d camera_from_board() const { return { board_rvec, board_tvec }; }
};

/// What the robot's poses are off by: a standard deviation of each coordinate of the gripper's origin, and of the turn
/// about each axis through it.
struct RobotNoise {
    double translation_mm = 0.0;
    double rotation_rad = 0.0;
};

/// What a pose of the robot and the picture taken there differ by: where the board's point is in the base as the camera
/// sees it, against where the other poses put it, and the turn between both.
struct HandEyeResidual {
    double mm = 0.0;
    double deg = 0.0;
};

/// Camera and board in the frames of the robot.
struct HandEye {
    HandEyeSetup setup = HandEyeSetup::eye_in_hand;
    cv::Affine3d camera; ///< gripper_from_camera, or base_from_camera of a fixed camera
    cv::Affine3d board;  ///< base_from_board, or gripper_from_board of a moved board
    /// Of `camera`: translation along the axes of gripper or base, mm; then a small turn about the camera's axes, rad.
    cv::Matx66d covariance = cv::Matx66d::zeros();
    RobotNoise noise; ///< estimated, or as given

    cv::Vec3d translation_sigma_mm() const;
    cv::Vec3d rotation_sigma_deg() const;
    /// Where the camera is expected to see the board.
    cv::Affine3d camera_from_board(const cv::Affine3d& base_from_gripper) const;
    HandEyeResidual residual(const HandEyePose& pose, const cv::Vec3d& board_point_mm) const;
};

constexpr std::size_t fewest_hand_eye_poses = 3;

/// Camera and board from poses of the robot whose errors are unknown, and larger than the camera's. Both the robot's
/// poses and the markers are observations: free poses B_i with the robot's reading as their prior, and the reprojection
/// error of all markers. As that is quadratic in each picture's board pose, the B_i are eliminated in closed form:
/// a residual is the robot's reading less what camera, board and picture predict for it,
///
///     camera moved:  B = Y C^-1 X^-1        camera fixed:  B = X C Y^-1
///
/// (X = camera, Y = board, C = camera_from_board), with the covariance robot + K P K^T, where P is the picture's and
/// K = dB/dC. Weighted least squares from the best of five closed forms; the robot's two variances follow from the
/// residuals by restricted maximum likelihood. The covariance is the inverse of the normal matrix: the bound of any
/// unbiased estimate. Sources: Strobl, Hirzinger, Optimal hand-eye calibration, IROS 2006; Zhou, Hu, Zhou, Lange, MM
/// algorithms for variance components models, J. Comput. Graph. Stat. 28 (2019).
/// @param known  the robot's noise where it is not to be estimated
/// @return nothing for fewer than three poses, and for poses that do not determine the camera
std::optional<HandEye> solve_hand_eye(
    const std::vector<HandEyePose>& poses, HandEyeSetup setup, const std::optional<RobotNoise>& known = std::nullopt);

/// The same from a start that is near, as of the same poses but one.
std::optional<HandEye> refine_hand_eye(
    const std::vector<HandEyePose>& poses, const HandEye& start, const std::optional<RobotNoise>& known);

/// The best of the closed forms, with no covariance and no noise. Sources: Tsai, Lenz 1989; Park, Martin 1994; Horaud,
/// Dornaika 1995; Andreff, Horaud, Espiau 1999; Daniilidis 1999.
std::optional<HandEye> closed_hand_eye(const std::vector<HandEyePose>& poses, HandEyeSetup setup);

} // namespace vexo
