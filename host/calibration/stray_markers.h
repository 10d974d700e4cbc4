#pragma once

#include "host/calibration/board_file.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// Takes out markers that hang together with the others on the board, but not in the picture: a speck beyond the last
/// row is numbered as the first marker of the next column. Kept is the largest group of markers of which each lies no
/// farther from a neighbour on the board than three times the median of such distances, whatever lens and slant.
/// @param markers  by board position, px; (FLT_MAX, FLT_MAX) where there is none
void remove_strays(std::vector<cv::Point2f>& markers, const BoardFile& board);

} // namespace vexo
