#pragma once

#include "board/KorvaCalibBoardRecognizer.h"
#include "support/board_photos.h"

namespace vexo {

using board_photos::Board;
using board_photos::Light;
using board_photos::Pose;

/// Opens what the walk and the classification work on.
struct Korva : KORVACalibBoardRecognizer {
    using CalibBoardRecognizer::board_points;
    using CalibBoardRecognizer::numbering;
    using CircleMarkerSearcher::debug_show;
    using ConnectionFinder::base_markers;
    using ConnectionFinder::connections;
    using ConnectionFinder::contours;
    using ConnectionFinder::ellipses;
    using KORVACalibBoardRecognizer::init_numbering;

    bool set(CalibBoardParam board, PreProcParam pre = {}, double debug_scale = 0)
    {
        CircleMarkerParam circle = board_photos::marker_settings();
        circle.debug_scale = debug_scale;
        return set_parameters(pre, circle, board);
    }
    bool set(const Board& board, PreProcParam pre = {}) { return set(board.param(), pre); }

    int look(cv::Mat picture) { return recognize(picture, points); }
    cv::Mat drawn(int kind)
    {
        cv::Mat picture;
        copy_result_image(picture, kind);
        return picture;
    }

    std::vector<cv::Point2f> points; // of the last look()

    int next_index(int marker, int neighbour, int index) const // the step of the walk, as its definition has it
    {
        const auto m = static_cast<size_t>(marker), q = static_cast<size_t>(neighbour);
        const cv::Point2d d = ellipses[q].center - ellipses[m].center;
        const double length = std::sqrt(d.x * d.x + d.y * d.y);
        const auto ux = static_cast<float>(static_cast<float>(d.x) / length);
        const auto uy = static_cast<float>(static_cast<float>(d.y) / length);
        const float a = direction(0, 0) * ux + direction(0, 1) * uy;
        const float b = direction(1, 0) * ux + direction(1, 1) * uy;
        if (std::abs(a) > std::abs(b)) return index + (a >= 0 ? -board_param.rows : board_param.rows);
        return index + (b >= 0 ? -1 : 1);
    }

    void walk_recursively(int m, int k, std::vector<int>& marker_of_index) const
    {
        marker_of_index[static_cast<size_t>(k)] = m;
        for (const int q : connections[static_cast<size_t>(m)]) {
            if (q == -1) continue;
            const int next = next_index(m, q, k);
            if (next < 0 || next >= marker_count || marker_of_index[static_cast<size_t>(next)] != -1) continue;
            walk_recursively(q, next, marker_of_index);
        }
    }
};

inline board_photos::Photographer& camera_of(int width)
{
    static board_photos::Photographer full, half { { 640, 512 }, 701 };
    return width == 1280 ? full : half;
}

inline Pose frontal(const Board& board)
{
    return board_photos::view(board, 0.3, 0.5, 0.2, { 0, 0, 500 });
}

inline cv::Mat picture_of(const Board& board)
{
    return camera_of(640).photo(board, frontal(board));
}

} // namespace vexo
