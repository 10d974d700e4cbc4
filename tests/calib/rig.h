#pragma once

#include "calib/Calibrator.h"
#include "support/board_image.h"

#include <array>
#include <random>
#include <vector>

/// Two toed-in cameras, 160 mm apart, that look at 600 mm; and series of board views seen by both.
namespace rig {

inline std::array<board_image::Camera, 2> cameras()
{
    board_image::Camera other;
    other.fx = 1396;
    other.fy = 1398;
    other.cx = 633;
    other.cy = 518;
    other.d = { -0.07, 0.03, -0.0003, 0.0005, 0.0 };
    return { board_image::Camera(), other };
}

/// Camera from rig; the rig's origin is in the middle of the baseline.
inline board_image::Pose camera_from_rig(int cam)
{
    const double side = cam == 0 ? -1 : 1;
    const cv::Matx33d R = board_image::rotation(1, side * 7.5 * CV_PI / 180);
    return { R, -(R * cv::Vec3d(80 * side, 0, 0)) };
}

inline board_image::Pose cam1_from_cam0()
{
    const board_image::Pose p0 = camera_from_rig(0);
    return camera_from_rig(1) * board_image::Pose { p0.R.t(), -(p0.R.t() * p0.t) };
}

/// Poses board -> rig: tilted 12 to 36 degrees every way, spread over the picture.
inline std::vector<board_image::Pose> poses(const board_image::Board& board, int count, unsigned seed)
{
    std::mt19937 rng(seed);
    const auto draw = [&rng](double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng); };
    std::vector<board_image::Pose> all;
    for (int i = 0; i < count; ++i) {
        const double tilt = draw(12, 36) * CV_PI / 180, way = (i + draw(0, 1)) * 2.4, turn = draw(-0.5, 0.5);
        all.push_back(board_image::view(board, tilt, way, turn, { draw(-50, 50), draw(-45, 45), draw(450, 550) }));
    }
    return all;
}

/// Lists of both cameras as recognition would give them, without any error.
inline std::array<std::vector<vexo::View>, 2> exact_views(
    const board_image::Board& board, const std::vector<board_image::Pose>& rig_from_board)
{
    std::array<std::vector<vexo::View>, 2> views;
    const auto cams = cameras();
    for (const board_image::Pose& pose : rig_from_board)
        for (int c = 0; c < 2; ++c) {
            vexo::View view;
            for (int i = 0; i < board.param.columns; ++i)
                for (int j = 0; j < board.param.rows; ++j) {
                    const cv::Vec3d x((board.param.origin_x - i) * board.param.pitch,
                        (board.param.origin_y - j) * board.param.pitch, 0);
                    view.push_back(cams[static_cast<size_t>(c)].project(camera_from_rig(c) * pose * x));
                }
            views[static_cast<size_t>(c)].push_back(view);
        }
    return views;
}

} // namespace rig
