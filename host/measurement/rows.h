#pragma once

#include "host/verdict/finding.h"

#include <opencv2/core.hpp>

#include <vector>

/// Whether both cameras see the same surface in the same row, as rectification promises. Fringes cannot say: their
/// phase is the same all along a column of the projector, so a match in the wrong row looks like a right one, and the
/// cloud is wrong without a word. The surface's own texture can: it is compared along y.
///
/// Rows see what moves a point across its row: cameras exchanged, the pitch and the roll of a camera, a foreign
/// calibration, frames of another scene. They do not see what moves it along the row: a yaw of 0.3 degrees, a wrong
/// baseline or a wrong focal length of both cameras leave the rows as they are.
namespace vexo {

constexpr double rows_warn_from = 0.3; ///< px of the median: from here on a finding warns

/// What one window with texture says.
struct RowShift {
    cv::Point at;    ///< its middle in rectified camera 0
    double px = 0.0; ///< row in camera 1 less row in camera 0
};

struct RowError {
    int windows = 0;      ///< that were looked at, each around a measured pixel of camera 0
    int textured = 0;     ///< of them: with texture along y to compare by
    double found = 0.0;   ///< share of the textured windows that have a match in camera 1 near their row
    double median = 0.0;  ///< px, row in camera 1 less row in camera 0; 0 where nothing was found
    double scatter = 0.0; ///< px, 1.4826 times the median deviation from the median
    /// Of the plane a + b x + c y through the row errors, px: a in the middle of the picture, b from its left to its
    /// right edge, c from its upper to its lower one.
    double a = 0.0, b = 0.0, c = 0.0;
    cv::Size size;                ///< of the picture
    double own_share = 1.0;       ///< of a window, that its neighbours do not have: what overlaps is not independent
    std::vector<RowShift> shifts; ///< of each window that has a match

    /// Enough windows have texture for the others to mean something.
    bool tested() const;
    /// The rows agree as those of a right pair do.
    bool fits() const;
};

/// Compares windows of rectified camera 0, on a grid over the measured pixels, with camera 1's picture at x - d,
/// shifted along y by up to 8 px: normalised correlation, its peak to sub-pixels by a parabola (Lewis 1995, Fast
/// normalized cross-correlation).
/// @param left, right  CV_8U, rectified lit frames of cameras 0 and 1, of one size
/// @param disparity    CV_32F, of that size, x0 - x1 in px, NaN where nothing was measured
/// @param noise        of the frames as recorded, grey levels: weaker texture than it allows is none
RowError test_rows(const cv::Mat& left, const cv::Mat& right, const cv::Mat& disparity, double noise);

/// CV_8U, 255 where a picture has texture enough to be matched by; noise as above.
cv::Mat textured_pixels(const cv::Mat& picture, double noise);

/// Standard deviation of the grey values where a picture is brighter than its mean and not saturated, from what a
/// Laplacian mask leaves; its median, which edges do not move. Immerkaer 1996, Fast noise variance estimation.
double grey_noise(const cv::Mat& picture);

/// What it means, as one finding "rows": good, unknown (no texture to test by: never good), worse or spoils. The
/// limits stand with their reasons in the source.
/// @param exchanged_fits  the rows agree when the cameras' frames are exchanged
Finding judge_rows(const RowError& error, bool exchanged_fits = false);

} // namespace vexo
