#pragma once

#include <opencv2/core.hpp>

#include "patterns/board.h"

namespace vexo {
namespace sim {

/// How a board differs from its layout: bent, and printed too long or too short along y.
struct BoardBend {
    double bow_mm = 0;    ///< see BentBoard
    double stretch_y = 0; ///< share by which everything printed lies farther from the board's origin along y
};

/// Where the print of a board lies in space, in the board's frame: x right, y up, z towards the viewer, mm. A point
/// (u, v) of the layout lies at
///
///     x = u     y = (1 + stretch_y) v     z = -bow_mm (r / R)^2
///
/// r is the distance of (x, y) from the middle of the markers, R half the longer side of the rectangle that joins the
/// centres of the outermost markers. With a positive bow the middle stands nearer to the cameras than the rim.
class BentBoard {
public:
    BentBoard(const BoardLayout& layout, const BoardBend& bend) noexcept;

    /// Where a ray hits the board, and how the hit moves when the ray turns, in the layout's mm.
    struct Hit {
        bool found = false;
        cv::Point2d at, along_x, along_y;
    };

    cv::Vec3d point(cv::Point2d of_layout) const noexcept;
    cv::Point2d of_layout(cv::Point2d xy) const noexcept { return { xy.x, xy.y / _stretch }; }
    bool is_flat() const noexcept { return _bend == 0; }

    /// The first hit of the ray `from` + t `direction`, t > 0, from the root of a quadratic in t.
    /// @param turn_x, turn_y  change of `direction` to the next pixel
    Hit hit(const cv::Vec3d& from, const cv::Vec3d& direction, const cv::Vec3d& turn_x,
        const cv::Vec3d& turn_y) const noexcept;

private:
    double _stretch;     ///< along y
    double _bend;        ///< bow / R^2, 1/mm
    cv::Point2d _middle; ///< of the markers, in the board's frame
};

/// Middle of the markers in the layout's mm.
cv::Point2d middle_of_markers(const BoardLayout& layout) noexcept;

} // namespace sim
} // namespace vexo
