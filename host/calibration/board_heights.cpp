#include "host/calibration/board_heights.h"

#include <algorithm>

namespace vexo {

BoardHeights heights_of(const BoardFile& board)
{
    const int count = board.markers();
    cv::Mat_<double> plane_terms(count, 3), z(count, 1), plane;
    for (int i = 0; i < count; ++i) {
        const cv::Point3f p = board_point(board, static_cast<std::size_t>(i));
        plane_terms(i, 0) = 1.0;
        plane_terms(i, 1) = p.x;
        plane_terms(i, 2) = p.y;
        z(i) = p.z;
    }
    cv::solve(plane_terms, z, plane, cv::DECOMP_SVD);
    const cv::Mat_<double> off(cv::Mat(z - plane_terms * plane));
    BoardHeights heights { { off.begin(), off.end() }, 0.0 };
    const auto [low, high] = std::minmax_element(heights.mm.begin(), heights.mm.end());
    heights.range_mm = *high - *low;
    return heights;
}

} // namespace vexo
