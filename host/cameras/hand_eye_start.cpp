#include "base/boundary.h"
#include "host/cameras/hand_eye.h"
#include "host/cameras/inverted.h"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace vexo {

namespace {

/// The mean of rotations: the rotation nearest to the mean of their matrices.
cv::Matx33d nearest_rotation(const cv::Matx33d& sum)
{
    const cv::SVD svd { cv::Mat(sum) };
    const cv::Matx33d U(svd.u.ptr<double>()), Vt(svd.vt.ptr<double>());
    const double sign = cv::determinant(U * Vt) < 0 ? -1.0 : 1.0;
    return U * cv::Matx33d::diag({ 1, 1, sign }) * Vt;
}

/// Where the board is, once the camera is known: the mean of what all poses say.
cv::Affine3d mean_board(const std::vector<HandEyePose>& poses, const HandEye& h)
{
    cv::Matx33d sum;
    cv::Vec3d place;
    for (const HandEyePose& pose : poses) {
        const cv::Affine3d& robot = pose.base_from_gripper;
        const cv::Affine3d board
            = (h.setup == HandEyeSetup::eye_in_hand ? robot : inverted(robot)) * h.camera * pose.camera_from_board();
        sum += board.rotation();
        place += board.translation() / static_cast<double>(poses.size());
    }
    return { nearest_rotation(sum), place };
}

/// Sum of the squared residuals, in which a turn counts as its way at the far end of a board.
double misfit(const std::vector<HandEyePose>& poses, const HandEye& h)
{
    constexpr double board_mm = 200.0;
    double sum = 0.0;
    for (const HandEyePose& pose : poses) {
        const HandEyeResidual r = h.residual(pose, {});
        sum += r.mm * r.mm + std::pow(r.deg * CV_PI / 180.0 * board_mm, 2);
    }
    return sum;
}

std::optional<HandEye> closed_form(
    const std::vector<HandEyePose>& poses, HandEyeSetup setup, cv::HandEyeCalibrationMethod method)
{
    std::vector<cv::Mat> robot_R, robot_T, seen_R, seen_T;
    for (const HandEyePose& pose : poses) {
        const cv::Affine3d robot
            = setup == HandEyeSetup::eye_in_hand ? pose.base_from_gripper : inverted(pose.base_from_gripper);
        const cv::Affine3d seen = pose.camera_from_board();
        robot_R.emplace_back(robot.rotation(), true);
        robot_T.emplace_back(robot.translation(), true);
        seen_R.emplace_back(seen.rotation(), true);
        seen_T.emplace_back(seen.translation(), true);
    }
    cv::Mat R, T;
    cv::calibrateHandEye(robot_R, robot_T, seen_R, seen_T, R, T, method);
    if (R.size() != cv::Size(3, 3) || T.total() != 3 || !cv::checkRange(R) || !cv::checkRange(T)) return std::nullopt;
    HandEye h;
    h.setup = setup;
    h.camera = { nearest_rotation(cv::Matx33d(R.ptr<double>())), cv::Vec3d(T.ptr<double>()) };
    h.board = mean_board(poses, h);
    return h;
}

} // namespace

std::optional<HandEye> closed_hand_eye(const std::vector<HandEyePose>& poses, HandEyeSetup setup)
{
    if (poses.size() < fewest_hand_eye_poses) return std::nullopt;
    std::optional<HandEye> best;
    double least = 0.0;
    for (const auto method : { cv::CALIB_HAND_EYE_TSAI, cv::CALIB_HAND_EYE_PARK, cv::CALIB_HAND_EYE_HORAUD,
             cv::CALIB_HAND_EYE_ANDREFF, cv::CALIB_HAND_EYE_DANIILIDIS }) {
        const auto found
            = value_if_opencv_throws(std::optional<HandEye>(), [&] { return closed_form(poses, setup, method); });
        if (!found) continue;
        const double off = misfit(poses, *found);
        if (!std::isfinite(off) || (best && off >= least)) continue;
        best = found;
        least = off;
    }
    return best;
}

} // namespace vexo
