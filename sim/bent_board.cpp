#include "sim/bent_board.h"

#include <algorithm>
#include <cmath>

namespace vexo {
namespace sim {

cv::Point2d middle_of_markers(const BoardLayout& b) noexcept
{
    return b.pitch_mm * cv::Point2d(b.origin_x - 0.5 * (b.columns - 1), b.origin_y - 0.5 * (b.rows - 1));
}

BentBoard::BentBoard(const BoardLayout& b, const BoardBend& bend) noexcept
    : _stretch(1 + bend.stretch_y)
    , _middle(middle_of_markers(b))
{
    const double reach = 0.5 * b.pitch_mm * (std::max(b.columns, b.rows) - 1);
    _bend = bend.bow_mm == 0 ? 0 : bend.bow_mm / (reach * reach);
    _middle.y *= _stretch;
}

cv::Vec3d BentBoard::point(cv::Point2d of_layout) const noexcept
{
    const cv::Point2d xy(of_layout.x, of_layout.y * _stretch), r = xy - _middle;
    return { xy.x, xy.y, -_bend * r.dot(r) };
}

BentBoard::Hit BentBoard::hit(
    const cv::Vec3d& from, const cv::Vec3d& direction, const cv::Vec3d& turn_x, const cv::Vec3d& turn_y) const noexcept
{
    const cv::Point2d r0 = cv::Point2d(from[0], from[1]) - _middle, across(direction[0], direction[1]);
    const double a = _bend * across.dot(across), b = direction[2] + 2 * _bend * r0.dot(across);
    const double c = from[2] + _bend * r0.dot(r0), root = b * b - 4 * a * c;
    if (!(root > 0)) return {};                     // the ray passes the paraboloid, or grazes it
    const double t = 2 * c / (std::sqrt(root) - b); // the root that stays when the board is flat
    if (!(t > 0)) return {};
    const cv::Point2d r = r0 + t * across;
    const cv::Vec3d normal(2 * _bend * r.x, 2 * _bend * r.y, 1);
    const auto moved = [&](const cv::Vec3d& turn) { // along the surface
        const double dt = -t * normal.dot(turn) / normal.dot(direction);
        return of_layout({ t * turn[0] + dt * direction[0], t * turn[1] + dt * direction[1] });
    };
    return { true, of_layout(r + _middle), moved(turn_x), moved(turn_y) };
}

} // namespace sim
} // namespace vexo
