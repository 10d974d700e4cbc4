#include "board/CircleMarkerSearcher.h"

#include "base/angles.h"
#include "board/result_picture.h"
#include "vexo/limits.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>

namespace vexo {

namespace {

constexpr double fit_tolerance_px = 1.5;

/// Colour of each verdict, BGR.
const std::array<cv::Vec3b, 5> verdict_colours = {
    cv::Vec3b(128, 255, 128), // accepted: green
    cv::Vec3b(255, 215, 128), // length: pale blue
    cv::Vec3b(128, 128, 255), // fit: red
    cv::Vec3b(128, 215, 255), // size: orange
    cv::Vec3b(255, 128, 255), // axis ratio: magenta
};

/// Points of a circle's contour, round(2 pi radius); radii beyond every image are clamped.
int contour_length(double radius)
{
    constexpr double longest = std::numeric_limits<int>::max();
    const double length = 2 * pi * radius + 0.5;
    return std::isnan(length) ? 0 : static_cast<int>(std::clamp(length, -longest, longest));
}

} // namespace

void CircleMarkerSearcher::init_searcher(CircleMarkerParam& param)
{
    searcher_param = param;
    max_length = contour_length(param.max_radius);
    min_length = contour_length(param.min_radius);
}

int CircleMarkerSearcher::search(cv::Mat& binary, cv::Mat& debug)
{
    _found = false;
    cv::findContours(binary, _traced, cv::RETR_LIST, cv::CHAIN_APPROX_NONE);

    _verdict.assign(_traced.size(), 0);
    int count = check_length(_verdict, _traced);
    if (count < searcher_param.min_markers) return 0;

    std::vector<RotatedEllipse> fitted(_traced.size());
    count = fit_ellipse(_traced, _verdict, fitted);
    if (count < searcher_param.min_markers || count > max_markers) return 0;

    _keep_accepted(fitted, count);
    _found = true;
    if (!debug.empty()) _draw_circles(debug);
    if (searcher_param.debug_scale != 0) {
        std::fputs("CircleMarkerSearcher show\n", stderr);
        debug_show(debug, "debug", false);
    }
    return 1;
}

int CircleMarkerSearcher::check_length(std::vector<int>& verdict, std::vector<Contour>& all)
{
    int count = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        const auto points = static_cast<long long>(all[i].size());
        if (min_length <= points && points <= max_length)
            ++count;
        else
            verdict[i] = 1;
    }
    return count;
}

int CircleMarkerSearcher::fit_ellipse(
    std::vector<Contour>& all, std::vector<int>& verdict, std::vector<RotatedEllipse>& fitted)
{
    const CircleMarkerParam& p = searcher_param;
    int count = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        if (verdict[i] != 0) continue;
        RotatedEllipse& e = fitted[i];
        if (p.min_fit_score > e.fit(all[i], fit_tolerance_px))
            verdict[i] = 2;
        else if (e.a < p.min_radius || e.b < p.min_radius || e.a > p.max_radius || e.b > p.max_radius)
            verdict[i] = 3;
        else
            ++count;
    }
    return count;
}

int CircleMarkerSearcher::check_diameter_rate(std::vector<RotatedEllipse>& all, std::vector<int>& verdict)
{
    int count = 0;
    double sum = 0;
    double sum_of_squares = 0;
    for (size_t i = 0; i < all.size(); ++i) {
        if (verdict[i] != 0) continue;
        const double ratio = all[i].minor_axis() / all[i].major_axis();
        sum += ratio;
        sum_of_squares += ratio * ratio;
        ++count;
    }
    const double mean = sum / count; // NaN without contours: every comparison below is false
    const double spread = 3 * std::sqrt(sum_of_squares / count - mean * mean);
    for (size_t i = 0; i < all.size(); ++i) {
        if (verdict[i] != 0) continue;
        const double ratio = all[i].minor_axis() / all[i].major_axis();
        if (ratio < mean - spread || ratio > mean + spread) {
            verdict[i] = 4;
            --count;
        }
    }
    return count;
}

void CircleMarkerSearcher::_keep_accepted(const std::vector<RotatedEllipse>& fitted, int count)
{
    contours.resize(static_cast<size_t>(count));
    ellipses.resize(static_cast<size_t>(count));
    size_t next = 0;
    for (size_t i = 0; i < _traced.size(); ++i) {
        if (_verdict[i] != 0) continue;
        contours[next] = _traced[i];
        ellipses[next] = fitted[i];
        ++next;
    }
}

void CircleMarkerSearcher::_draw_circles(cv::Mat& drawing) const
{
    if (!_found) return;
    for (size_t i = 0; i < _traced.size(); ++i) // not cv::drawContours, which looks at all contours to draw one
        for (const cv::Point& p : _traced[i])
            drawing.at<cv::Vec3b>(p) = verdict_colours[static_cast<size_t>(_verdict[i])];
    for (const RotatedEllipse& e : ellipses)
        draw_ellipse(drawing, e, verdict_colours[0], 2);
}

void CircleMarkerSearcher::debug_show(cv::Mat& image, std::string name, bool save)
{
    const double scale = searcher_param.debug_scale;
    if (scale == 0) return;
    const double columns = std::trunc(image.cols * scale);
    const double rows = std::trunc(image.rows * scale);
    if (!is_picture_size(columns, rows)) return;

    cv::Mat resized;
    cv::resize(image, resized, cv::Size(static_cast<int>(columns), static_cast<int>(rows)), 0, 0, cv::INTER_LINEAR);
    if (save) write_picture(name + (resized.channels() == 1 ? ".pgm" : ".ppm"), resized);
    show_picture(name, resized, 0);
}

} // namespace vexo
