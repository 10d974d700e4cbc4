#pragma once

#include "calib/Calibrator.h"
#include "support/board_photos.h"

#include <array>

/// Series of views of a board by the virtual rig's pair: two toed-in cameras, 160 mm apart, that look at 600 mm.
namespace board_series {

using board_photos::Board;
using board_photos::Pose;

inline vexo::sim::CalibrationOptions options_for(const Board& board, int views, std::uint64_t seed)
{
    vexo::sim::CalibrationOptions options;
    options.rig.noise = 1;
    options.rig.seed = seed;
    options.board = board.layout;
    options.views = views;
    options.blur = 0.6;
    options.gradient = 1;
    return options;
}

inline const vexo::sim::Camera& camera(std::size_t cam)
{
    static const vexo::sim::Rig rig = make_rig(options_for({}, 1, 1).rig);
    return rig.cameras[cam];
}

inline Pose cam1_from_cam0()
{
    const cv::Matx33d R = camera(1).R * camera(0).R.t();
    return { R, camera(1).T - R * camera(0).T };
}

inline Pose camera_from_board(std::size_t cam, const Pose& rig_from_board)
{
    return { camera(cam).R * rig_from_board.R, camera(cam).to_camera(rig_from_board.T) };
}

/// Lists of both cameras as recognition would give them, without any error.
inline std::array<std::vector<vexo::View>, 2> exact_views(const Board& board, const std::vector<Pose>& poses)
{
    std::array<std::vector<vexo::View>, 2> views;
    for (std::size_t c = 0; c < 2; ++c)
        for (const Pose& pose : poses) {
            vexo::View& view = views[c].emplace_back();
            for (const auto& marker : board_markers(board.layout)) {
                const cv::Vec2d at = camera(c).project(pose * cv::Vec3d(marker.centre_mm.x, marker.centre_mm.y, 0));
                view.emplace_back(static_cast<float>(at[0]), static_cast<float>(at[1]));
            }
        }
    return views;
}

inline std::vector<Pose> poses(const Board& board, int views, std::uint64_t seed)
{
    const vexo::sim::CalibrationOptions options = options_for(board, views, seed);
    return choose_poses(make_rig(options.rig), options);
}

/// Sixteen views of the fine board; photos are taken when they are asked for.
class Series {
public:
    static constexpr int views = 16;

    const cv::Mat& photo(int cam, int view)
    {
        cv::Mat& photo = _photos[static_cast<std::size_t>(views * cam + view)];
        if (photo.empty()) photo = _photographers[cam].photo(poses[static_cast<std::size_t>(view)], view);
        return photo;
    }

    const Board board {};
    const std::vector<Pose> poses = board_series::poses(board, views, 7); ///< rig from board

private:
    vexo::sim::CalibrationOptions _options = options_for(board, views, 7);
    vexo::sim::Rig _rig = make_rig(_options.rig);
    vexo::sim::BoardPhotographer _photographers[2] { { _rig, 0, _options }, { _rig, 1, _options } };
    std::vector<cv::Mat> _photos { 2 * views };
};

inline Series& series()
{
    static Series s;
    return s;
}

template <class Object> bool set_up(Object& object, vexo::PreProcParam pre = {})
{
    vexo::CircleMarkerParam circle = board_photos::marker_settings();
    vexo::CalibBoardParam board = series().board.param();
    return object.set_parameters(pre, circle, board);
}

} // namespace board_series
