#pragma once

#include "host/calibration/board_file.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>

namespace vexo {

/// What kind of board is asked for; what is not given follows from the preset.
struct BoardRequest {
    std::string preset = "A4"; ///< "A4", "A3", "coarse" or "custom", in any case
    std::optional<cv::Size2d> page_mm;
    std::optional<double> pitch, diameter, hole, margin; ///< mm
    std::optional<int> columns, rows;
    std::optional<cv::Point> origin; ///< columns right of the O ring, rows above it
};

/// A board and the paper it is printed on.
struct BoardDesign {
    BoardFile board;
    cv::Size2d page_mm;
};

/// Throws Failure for a board that recognition could not read.
BoardDesign design_board(const BoardRequest& request);

/// The paper of that name, in any case; nothing when there is none.
std::optional<cv::Size2d> page_named(const std::string& name);

} // namespace vexo
