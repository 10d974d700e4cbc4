#pragma once

#include "board/RotatedEllipse.h"
#include "vexo/records.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

namespace vexo {

using Contour = std::vector<cv::Point>;

/// Finds the circle markers in a binary image: contours of plausible length to which an ellipse fits.
///
/// Verdicts  one per traced contour: 0 accepted, 1 length, 2 fit, 3 size, 4 axis ratio (never given by search).
/// Threads   one searcher is for one thread at a time.
class CircleMarkerSearcher {
public:
    virtual ~CircleMarkerSearcher() = default;

    /// Most markers that are kept. The distances between all of them take 8 bytes a pair: 134 MB here; the
    /// specks of a noisy picture would take gigabytes, and no board has as many markers.
    static constexpr int max_markers = 4096;

    /// Copies the record and derives the limits of the contour length, round(2 pi radius).
    void init_searcher(CircleMarkerParam& param);

    /// Traces and judges all contours; on success replaces the kept contours and ellipses.
    ///
    /// @param binary  0 and 255
    /// @param debug   in, out: colour picture of that size to draw the verdicts into; empty: not drawn
    /// @return        1, or 0 and the kept lists as they were when fewer than min_markers or more than
    ///                max_markers survive
    int search(cv::Mat& binary, cv::Mat& debug);

    /// Marks contours whose number of points is outside of the limits with 1.
    /// @return  number of the others
    int check_length(std::vector<int>& verdict, std::vector<Contour>& contours);

    /// Fits an ellipse to every contour with verdict 0; marks poor fits with 2, wrong sizes with 3.
    /// @param ellipses  out, one per contour, already of that size
    /// @return          number of contours left with verdict 0
    int fit_ellipse(std::vector<Contour>& contours, std::vector<int>& verdict, std::vector<RotatedEllipse>& ellipses);

    /// Marks ellipses whose axis ratio is more than three standard deviations from the mean with 4. Not part
    /// of search(): under perspective the ratio varies over the board.
    /// @return  number of contours left with verdict 0
    int check_diameter_rate(std::vector<RotatedEllipse>& ellipses, std::vector<int>& verdict);

    /// Shows a picture, zoomed by debug_scale, and waits for a key; nothing when that is 0.
    /// @param save  also write it to `name`.pgm (grey) or `name`.ppm
    void debug_show(cv::Mat& image, std::string name, bool save);

protected:
    /// Draws every traced contour in its verdict's colour and every kept ellipse; nothing after a failed search.
    void _draw_circles(cv::Mat& drawing) const;

    CircleMarkerParam searcher_param;
    std::vector<Contour> contours;        ///< one for each kept marker
    std::vector<RotatedEllipse> ellipses; ///< one for each kept marker, px
    int max_length = 0;                   ///< points of a contour
    int min_length = 0;                   ///< points of a contour

private:
    void _keep_accepted(const std::vector<RotatedEllipse>& fitted, int count);

    std::vector<Contour> _traced; // all contours of the last image, and what became of each
    std::vector<int> _verdict;
    bool _found = false;
};

} // namespace vexo
