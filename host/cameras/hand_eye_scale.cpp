#include "host/cameras/hand_eye_scale.h"

#include "host/cameras/hand_eye_readings.h"

#include <cmath>
#include <limits>

namespace vexo {

namespace {

/// How poses fit with a board that is larger by a factor: all its distances from the camera are, too.
HandEyeResidual rms_with(
    double factor, std::vector<HandEyePose> poses, HandEyeSetup setup, const cv::Vec3d& board_point_mm)
{
    for (HandEyePose& pose : poses)
        pose.board_tvec *= factor;
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    const auto solved = solve_hand_eye(poses, setup);
    return solved ? rms_of(residuals_of(poses, *solved, factor * board_point_mm)) : HandEyeResidual { none, none };
}

} // namespace

std::optional<BoardScale> find_board_scale(const std::vector<HandEyePose>& poses, HandEyeSetup setup,
    const cv::Vec3d& board_point_mm, const HandEyeResidual& rms)
{
    constexpr double step = 0.01, largest = 0.2;
    const auto square_at
        = [&](double change) { return std::pow(rms_with(1 + change, poses, setup, board_point_mm).mm, 2); };
    double change = 0.0;
    for (int round = 0; round < 2; ++round) { // residuals are linear in the size, nearly
        const double less = square_at(change - step), here = square_at(change), more = square_at(change + step);
        const double bend = less - 2 * here + more;
        if (!(bend > 0)) return std::nullopt;
        change += 0.5 * step * (less - more) / bend;
        if (!(std::abs(change) < largest)) return std::nullopt;
    }
    const BoardScale scale { 1 + change, rms_with(1 + change, poses, setup, board_point_mm) };
    const double freedom = 3.0 * static_cast<double>(poses.size()) - 7.0;
    // The 0.999 quantile of F(1, freedom), within 4 % from 11 on: 10.83 for infinitely many.
    const double needed = 10.83 * (1 + 8.5 / freedom);
    const double explained = rms.mm * rms.mm / (scale.rms.mm * scale.rms.mm) - 1;
    if (freedom < 11 || !(explained * freedom > needed)) return std::nullopt;
    return scale;
}

} // namespace vexo
