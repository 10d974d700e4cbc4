#pragma once

#include "sim/calibration.h"
#include "vexo/records.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <vector>

/// Photos of calibration boards with known truth, taken by the virtual rig's cameras.
namespace board_photos {

using Layout = decltype(vexo::sim::CalibrationOptions::board);
using Pose = vexo::sim::BoardPose; ///< camera (or rig) from board

/// A board, with other rings than it is printed with, or seen through the paper. Positions are in pitches.
struct Board {
    Layout layout; ///< as printed: 19 x 15 markers, 228 x 180 mm
    std::vector<cv::Point> rings = { { 0, 0 }, { 2, 0 }, { 0, 1 } };
    std::vector<cv::Point> covered; ///< positions without a marker
    bool mirrored = false;

    vexo::CalibBoardParam param() const
    {
        return { layout.pitch_mm, layout.columns, layout.rows, layout.origin_x, layout.origin_y, 1.2 };
    }
};

/// 11 x 9 markers: 220 x 180 mm.
inline Board coarse_board()
{
    Board board;
    board.layout = { 20, 16, 9.6, 15, 11, 9, 6, 4 };
    return board;
}

/// Recognition settings for these boards.
inline vexo::CircleMarkerParam marker_settings()
{
    vexo::CircleMarkerParam circle;
    circle.min_radius = 4;
    return circle;
}

/// The whole board from its front, its middle at `middle_mm` in the camera's frame: tilted about a direction in the
/// board, turned about the optical axis.
inline Pose view(
    const Board& board, double tilt_rad, double tilt_direction_rad, double turn_rad, const cv::Vec3d& middle_mm)
{
    const auto about = [](const cv::Vec3d& axis_times_angle) {
        cv::Matx33d R;
        cv::Rodrigues(axis_times_angle, R);
        return R;
    };
    const cv::Vec3d tilt_axis(std::cos(tilt_direction_rad), std::sin(tilt_direction_rad), 0);
    const cv::Matx33d facing(1, 0, 0, 0, -1, 0, 0, 0, -1); // board y up, z towards the camera
    const cv::Matx33d R = about({ 0, 0, turn_rad }) * about(tilt_axis * tilt_rad) * facing;
    const Layout& b = board.layout;
    const cv::Vec3d middle(
        (b.origin_x - 0.5 * (b.columns - 1)) * b.pitch_mm, (b.origin_y - 0.5 * (b.rows - 1)) * b.pitch_mm, 0);
    return { R, middle_mm - R * middle };
}

/// What happens to the light on its way to the photo.
struct Light {
    double blur_px = 0.6;
    double noise = 1.0; ///< grey levels
    double gradient = 1.0;
};

/// A camera at its own origin that photographs any board; the rays are cast once.
class Photographer {
public:
    explicit Photographer(cv::Size size = { 1280, 1024 }, double f_px = 1402)
        : _rig(vexo::sim::make_rig({}))
        , _camera(_rig.cameras[0] = { size, { f_px, 0, 0.5 * size.width + 3, 0, f_px, 0.5 * size.height - 3, 0, 0, 1 },
                      { -0.08, 0.05, 0.0004, -0.0003, 0.0 }, cv::Matx33d::eye(), {} })
        , _photographer(_rig, 0, _options)
    {
    }
    Photographer(const Photographer&) = delete; // the rig's photographer points into this
    Photographer& operator=(const Photographer&) = delete;

    /// Image of each marker's centre, in the order of the recogniser's lists.
    std::vector<cv::Point2d> centres(const Board& board, const Pose& pose) const
    {
        std::vector<cv::Point2d> all;
        for (const auto& marker : board_markers(board.layout))
            all.emplace_back(_camera.project(pose * cv::Vec3d(marker.centre_mm.x, marker.centre_mm.y, 0)));
        return all;
    }

    /// @param seed  of the noise and of where the light comes from
    cv::Mat photo(const Board& board, const Pose& pose, const Light& light = {}, int seed = 1)
    {
        _options.board = board.layout;
        _options.blur = light.blur_px;
        _options.gradient = light.gradient;
        _rig.sensor.read = light.noise;
        _rig.sensor.shot = 0;
        cv::Mat photo = _photographer.photo(pose, seed);
        const auto draw = [&](cv::Point at, double diameter_mm, cv::Point2d grey_of) {
            std::vector<cv::Point> outline; // in 16ths of a pixel
            for (int i = 0; i < 64; ++i) {
                const double a = CV_PI / 32 * i, r = 0.5 * diameter_mm / board.layout.pitch_mm;
                outline.emplace_back(16 * _pixel(board, pose, { at.x + r * std::cos(a), at.y + r * std::sin(a) }));
            }
            const double grey = photo.at<uchar>(cv::Point(_pixel(board, pose, grey_of)));
            cv::fillConvexPoly(photo, outline, grey, cv::LINE_AA, 4);
        };
        const cv::Point2d paper(0.5, 0.5), ink(-1, 0);
        const auto has = [](const std::vector<cv::Point>& list, cv::Point p) {
            return std::find(list.begin(), list.end(), p) != list.end();
        };
        for (const cv::Point& ring : Board().rings)
            if (!has(board.rings, ring)) draw(ring, board.layout.hole_mm + 1, ink);
        for (const cv::Point& ring : board.rings)
            if (!has(Board().rings, ring)) draw(ring, board.layout.hole_mm, paper);
        for (const cv::Point& marker : board.covered)
            draw(marker, board.layout.diameter_mm + 2, paper);
        if (board.mirrored) cv::flip(photo, photo, 1);
        return photo;
    }

private:
    cv::Point2d _pixel(const Board& board, const Pose& pose, cv::Point2d position) const
    {
        position *= board.layout.pitch_mm;
        return _camera.project(pose * cv::Vec3d(position.x, position.y, 0));
    }

    vexo::sim::CalibrationOptions _options;
    vexo::sim::Rig _rig;
    const vexo::sim::Camera& _camera;
    vexo::sim::BoardPhotographer _photographer;
};

/// For tests that need a picture of a board rather than accuracy: 400 x 320 px of the coarse one.
inline cv::Mat small_photo()
{
    const Board board = coarse_board();
    return Photographer({ 400, 320 }, 440).photo(board, view(board, 0.3, 1.0, 0.1, { 0, 0, 320 }));
}

} // namespace board_photos
