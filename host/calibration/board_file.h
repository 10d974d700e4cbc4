#pragma once

#include "patterns/board.h"
#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <cstddef>
#include <string>

namespace vexo {

/// How the markers of a real board lie, against what was to be printed: paper warps, and printers feed it at a pace of
/// their own. The plane of z = 0 touches the board at its origin.
///
///     x' = x + shear y     y' = (1 + stretch_y) y     z' = (bow_xx x^2 + bow_xy x y + bow_yy y^2) / (100 mm)^2
struct BoardShape {
    double bow_xx = 0.0, bow_xy = 0.0, bow_yy = 0.0; ///< mm at 100 mm from the origin
    double stretch_y = 0.0;                          ///< share by which y is longer than x
    double shear = 0.0;                              ///< rad, by which the right angle is off

    bool bowed() const { return bow_xx != 0.0 || bow_xy != 0.0 || bow_yy != 0.0; }
    bool plain() const { return !bowed() && stretch_y == 0.0 && shear == 0.0; }
    cv::Point3d at(cv::Point2d printed_mm) const;
};

/// A calibration board: what is printed, and how recognition is set to find it. The file `board.yaml`.
struct BoardFile {
    BoardLayout layout;
    BoardShape shape;
    PreProcParam pre;         ///< Otsu
    CircleMarkerParam circle; ///< min radius 4 px, not the record's 8: the hole of a ring far away is smaller
    double neighbour_limit = 1.2;

    BoardFile() { circle.min_radius = 4.0; }

    /// The record of the library. Its unit is mm.
    CalibBoardParam geometry() const;
    int markers() const { return layout.columns * layout.rows; }
};

/// Why recognition could not read such a board, in words; empty when it can. The limits stand with their reasons
/// in the source.
std::string why_unreadable(const BoardFile& board);

/// Reads a board file. Throws Failure for a file that is no board file, for keys it does not know, for values of
/// the wrong kind, and for boards that recognition cannot read.
BoardFile load_board(const std::string& path);

/// The text of the board file.
std::string board_yaml(const BoardFile& board);

/// "19 x 15 markers, pitch 12 mm, discs 9.6 mm, holes 5.76 mm".
std::string describe(const BoardFile& board);

/// A length in as few digits as it needs: "12", "9.6", "5.76".
std::string short_number(double value);

/// Where a marker was to be printed, mm, by its place in the recogniser's lists.
cv::Point2d printed_point(const BoardFile& board, std::size_t index);

/// Where it lies on the real board, as far as its shape is known, mm.
cv::Point3f board_point(const BoardFile& board, std::size_t index);

} // namespace vexo
