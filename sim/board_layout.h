#pragma once

#include <cmath>
#include <vector>

#include <opencv2/core.hpp>

namespace vexo {
namespace sim {

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
inline std::vector<BoardMarker> board_markers(const BoardLayout& board)
{
    std::vector<BoardMarker> markers;
    for (int i = 0; i < board.columns; ++i) {
        for (int j = 0; j < board.rows; ++j) {
            const cv::Point at(board.origin_x - i, board.origin_y - j);
            markers.push_back({ at, { at.x * board.pitch_mm, at.y * board.pitch_mm }, is_ring(at) });
        }
    }
    return markers;
}

/// The paper with its margin, board frame, mm: x to x + width, y to y + height (upwards).
inline cv::Rect2d board_paper(const BoardLayout& board)
{
    const double around = board.margin_mm + 0.5 * board.diameter_mm;
    const double left = (board.origin_x - board.columns + 1) * board.pitch_mm - around;
    const double low = (board.origin_y - board.rows + 1) * board.pitch_mm - around;
    return { left, low, (board.columns - 1) * board.pitch_mm + 2 * around,
        (board.rows - 1) * board.pitch_mm + 2 * around };
}

/// What a point of the board plane shows.
enum class BoardSpot { outside, paper, ink };

/// @param edge_mm  out: no edge between paper, ink and outside lies nearer than this
inline BoardSpot board_spot(const BoardLayout& board, cv::Point2d point_mm, double& edge_mm) noexcept
{
    const cv::Rect2d paper = board_paper(board);
    const double across = std::fmin(point_mm.x - paper.x, paper.x + paper.width - point_mm.x);
    const double along = std::fmin(point_mm.y - paper.y, paper.y + paper.height - point_mm.y);
    const double inside = std::fmin(across, along);
    edge_mm = std::fabs(inside);
    if (!(inside >= 0)) return BoardSpot::outside;

    const double x = std::round(point_mm.x / board.pitch_mm), y = std::round(point_mm.y / board.pitch_mm);
    const double from_centre = std::hypot(point_mm.x - x * board.pitch_mm, point_mm.y - y * board.pitch_mm);
    const cv::Point at(static_cast<int>(x), static_cast<int>(y));
    const int column = board.origin_x - at.x, row = board.origin_y - at.y;
    if (column < 0 || column >= board.columns || row < 0 || row >= board.rows) {
        edge_mm = std::fmin(edge_mm, 0.5 * (board.pitch_mm - board.diameter_mm));
        return BoardSpot::paper;
    }
    edge_mm = std::fmin(edge_mm, std::fabs(from_centre - 0.5 * board.diameter_mm));
    if (!is_ring(at)) return 2 * from_centre < board.diameter_mm ? BoardSpot::ink : BoardSpot::paper;
    edge_mm = std::fmin(edge_mm, std::fabs(from_centre - 0.5 * board.hole_mm));
    const bool black = 2 * from_centre < board.diameter_mm && 2 * from_centre >= board.hole_mm;
    return black ? BoardSpot::ink : BoardSpot::paper;
}

} // namespace sim
} // namespace vexo
