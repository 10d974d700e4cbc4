#pragma once

#include "host/calibration/board_file.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// The printed page of a calibration board: first what is on it, in mm, then how a file format draws that.
namespace vexo {

/// A page of paper, mm from its top left corner, x to the right, y down.
struct Sheet {
    /// A black disc; with a white hole when `hole_mm` is above 0.
    struct Disc {
        cv::Point2d centre_mm;
        double diameter_mm;
        double hole_mm;
    };
    /// A black bar, along the page's axes.
    using Bar = cv::Rect2d;
    /// A line of black letters, small against the discs: in a photo a 0 is too small for one of the rings.
    struct Text {
        cv::Point2d left_mm; ///< left end of the base line
        double size_mm;      ///< of the typeface; capitals are about 0.7 of it
        std::string text;
    };

    cv::Size2d page_mm;
    std::vector<Disc> discs;
    std::vector<Bar> bars;
    std::vector<Text> texts;
};

/// Lays the board out on a page: seen from the front, board x to the right and y up; a 100 mm ruler along each
/// direction, outside the board's margin, and the board's parameters in words.
/// Throws Failure when the page is too small, saying how large it must be.
Sheet make_sheet(const BoardFile& board, cv::Size2d page_mm);

/// Widths of the scene, mm, in pictures of 1280 px for which a board is good: in `width` the paper fills the picture,
/// in `height` a disc is 16 px wide, which recognition still reads well when it is tilted.
cv::Size2d fitting_widths(const BoardLayout& board);

/// Board frame to page: where a point of the board lies on the sheet, mm.
cv::Point2d on_page(const BoardFile& board, cv::Size2d page_mm, cv::Point2d point_in_board_mm);

/// The sheet as a PDF of that page size. Throws Failure.
std::vector<unsigned char> sheet_as_pdf(const Sheet& sheet);

/// The sheet as an SVG in mm.
std::string sheet_as_svg(const Sheet& sheet);

/// The sheet as an 8-bit grey PNG that states its resolution. Throws Failure when it would be too large.
std::vector<unsigned char> sheet_as_png(const Sheet& sheet, double dpi);

} // namespace vexo
