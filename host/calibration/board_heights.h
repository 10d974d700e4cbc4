#pragma once

#include "host/calibration/board_file.h"

#include <vector>

namespace vexo {

/// How far a board is from flat.
struct BoardHeights {
    std::vector<double> mm; ///< of each marker off the best plane, by its place in the recogniser's lists
    double range_mm = 0.0;  ///< from the lowest to the highest
};

BoardHeights heights_of(const BoardFile& board);

} // namespace vexo
