#include "patterns/board.h"

#include <cmath>

namespace vexo {

std::vector<BoardMarker> board_markers(const BoardLayout& board)
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

cv::Rect2d board_paper(const BoardLayout& board)
{
    const double around = board.margin_mm + 0.5 * board.diameter_mm;
    const double left = (board.origin_x - board.columns + 1) * board.pitch_mm - around;
    const double low = (board.origin_y - board.rows + 1) * board.pitch_mm - around;
    return { left, low, (board.columns - 1) * board.pitch_mm + 2 * around,
        (board.rows - 1) * board.pitch_mm + 2 * around };
}

BoardSpot board_spot(const BoardLayout& board, cv::Point2d point_mm, double& edge_mm) noexcept
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

} // namespace vexo
