#include "host/calibration/share_check.h"

#include "base/statistics.h"
#include "host/calibration/levels.h"
#include "host/cameras/rectification.h"

#include <algorithm>
#include <array>

namespace vexo {

namespace {

/// Over the noise of a usual scan. A half adds an eighth to that noise, which nobody will see; five times as much is
/// what one sees of the scan, and no average over points or scans makes it smaller.
constexpr double good_part = 0.5, poor_part = 5.0;

/// The same of a single camera's directions, whose pixels are matched no better than a pair's.
constexpr double good_px = good_part * usual_noise_px, poor_px = poor_part * usual_noise_px;

/// A board that fills less of the width or height leaves most of the distortion to many views.
constexpr double least_extent = 0.4;

constexpr std::size_t enough_views = 12;
constexpr double enough_spread_deg = 25.0, enough_coverage = 0.75;

/// Median over the views of the part of the picture's longer side along which camera 0 sees the board.
double extent_of_board(const Calibrated& c)
{
    std::vector<double> extents;
    for (std::size_t v = 0; v < c.views.count(); ++v) {
        const std::vector<cv::Point2f> seen = seen_markers(c.views.cameras[0][v], c.board).image_px;
        if (!c.used[v] || seen.empty()) continue;
        const auto [left, right] = std::minmax_element(
            seen.begin(), seen.end(), [](const cv::Point2f& a, const cv::Point2f& b) { return a.x < b.x; });
        const auto [top, bottom] = std::minmax_element(
            seen.begin(), seen.end(), [](const cv::Point2f& a, const cv::Point2f& b) { return a.y < b.y; });
        extents.push_back(std::max(static_cast<double>(right->x - left->x) / c.size.width,
            static_cast<double>(bottom->y - top->y) / c.size.height));
    }
    return median(extents);
}

/// What the views lack; more of them always help.
std::string better_views(const Calibrated& c)
{
    std::string advice;
    const auto add = [&advice](const std::string& text) { advice += (advice.empty() ? "" : "; ") + text; };
    if (spread_deg(c.fits[0].normals).across < enough_spread_deg)
        add("tilt the board by 25 to 45 degrees, to all sides");
    if (coverage(c.views.cameras[0], c.used, c.size) < enough_coverage) add("move it into the corners");
    if (extent_of_board(c) < least_extent) add("use a larger board, or go nearer: it should fill most of the picture");
    if (c.used_count() < enough_views) add("take " + std::to_string(enough_views) + " views or more");
    if (advice.empty()) add("take sharper, brighter photos, and more of them");
    return advice;
}

/// What to do about a share that is not valid.
std::string remedy(const Calibrated& c)
{
    if (!(c.covariance->marker_sigma_px > 0.0)) return "calibrate without --no-refine";
    return "take sharper photos, mount the sheet on a stiff, flat plate, hold it still, check board.yaml, and leave "
           "out "
           "views that stand out";
}

Finding check_direction(const Calibrated& c)
{
    const std::string name = "share", said = in_words(c.direction);
    const auto& share = c.direction.share;
    if (!share) return { name, Weight::worse, "", said, better_views(c) };
    const Weight l = level(share->px, good_px, poor_px);
    if (!share->invalid.empty()) return { name, std::max(l, Weight::worse), "", said, remedy(c) };
    return { name, l, "", said, l == Weight::good ? "" : better_views(c) };
}

} // namespace

Finding check_share(const Calibrated& c)
{
    if (!c.is_pair()) return check_direction(c);
    const std::string name = "share";
    if (!c.share.share) return { name, Weight::worse, "", in_words(c.share), better_views(c) };
    const CalibrationShare& share = *c.share.share;
    const double f = rectify({ c.cameras[0], c.cameras[1] }, c.size, -1.0, 0, c.size).P0(0, 0);
    Weight l = Weight::good;
    std::array<double, 3> noise {};
    for (std::size_t i = 0; i < noise.size(); ++i) {
        noise[i] = usual_noise(f, c.baseline, share.distance_mm[i]);
        l = std::max(l, level(share.depth_mm[i], good_part * noise[i], poor_part * noise[i]));
    }
    const std::string text = "by the calibration alone a depth is off by " + depths_in_words(share)
        + " (a usual scan's noise there: " + number(noise[0], 3) + ", " + number(noise[1], 3) + " and "
        + number(noise[2], 3) + " mm)";
    if (!share.invalid.empty())
        return { name, std::max(l, Weight::worse), "", text + ", and by more than that: " + share.invalid, remedy(c) };
    return { name, l, "", text, l == Weight::good ? "" : better_views(c) };
}

} // namespace vexo
