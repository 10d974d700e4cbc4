#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// What is printed on a calibration board, in its own frame: origin at the O marker, x towards the X marker, y
/// towards the Y marker, mm. Seen from the front x runs to the right and y *up*, so z points at the viewer.
/// The one place that knows where markers lie: the printed sheet and the simulated photos are both drawn from it.
///
/// A grid of black discs on white paper. Position (x, y) is x pitches along board x and y along board y; the first
/// column is the rightmost one, x = origin_x, the first row the topmost one, y = origin_y. Three discs have a white
/// hole: O at (0, 0), X at (2, 0), Y at (0, 1).
struct BoardLayout {
    double pitch_mm = 12;     ///< distance of neighbouring centres
    double diameter_mm = 9.6; ///< of all discs
    double hole_mm = 5.76;    ///< diameter of the holes of O, X and Y
    double margin_mm = 9;     ///< white paper around the outermost discs
    int columns = 19;         ///< markers along x
    int rows = 15;            ///< markers along y
    int origin_x = 10;        ///< x of the first column, in pitches
    int origin_y = 7;         ///< y of the first row, in pitches
};

/// One marker of a board.
struct BoardMarker {
    cv::Point position;    ///< in pitches
    cv::Point2d centre_mm; ///< board frame
    bool ring;             ///< has a hole
};

/// Whether the marker at a position is one of the three with a hole.
inline bool is_ring(cv::Point position) noexcept
{
    const bool o_or_x = position.y == 0 && (position.x == 0 || position.x == 2);
    return o_or_x || (position.x == 0 && position.y == 1);
}

/// All markers; entry i * rows + j is column i, row j: the order of the recogniser's lists.
std::vector<BoardMarker> board_markers(const BoardLayout& board);

/// The paper with its margin, board frame, mm: x to x + width, y to y + height (upwards).
cv::Rect2d board_paper(const BoardLayout& board);

/// What a point of the board plane shows.
enum class BoardSpot { outside, paper, ink };

/// @param edge_mm  out: no edge between paper, ink and outside lies nearer than this
BoardSpot board_spot(const BoardLayout& board, cv::Point2d point_mm, double& edge_mm) noexcept;

} // namespace vexo
