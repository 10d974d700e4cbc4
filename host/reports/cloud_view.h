#pragma once

#include "host/measurement/measured.h"
#include "host/reports/html.h"
#include "host/reports/page_pictures.h"

#include <optional>
#include <string>
#include <vector>

/// The points of a measurement, to be turned in a page.
namespace vexo {

constexpr int most_points_shown = 250000;

/// Pixels of which points are shown: every step-th of every step-th row; half: of these every second, as the fields of
/// one colour on a chessboard.
struct ViewGrid {
    int step = 1;
    bool half = false;

    bool holds(int y, int x) const
    {
        return y % step == 0 && x % step == 0 && (!half || (y / step + x / step) % 2 == 0);
    }
};

/// The densest grid that holds at most `most` of the points.
/// @param disparity  CV_32F, NaN where there is no point
ViewGrid choose_grid(const cv::Mat& disparity, int most = most_points_shown);

/// The section with the view; without three.js it says why there is none. Nothing where there is no point.
std::optional<Section> cloud_section(const Measured& measured, const Spans& spans);

/// The scripts that draw it; none without three.js.
std::vector<std::string> cloud_scripts();

} // namespace vexo
