#include "host/measurement/rows.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/measurement/row_pictures.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <vector>

namespace vexo {

namespace {

constexpr int half_height = half_column, half_width = 5; ///< of a window of 31 x 11 px

constexpr int reach = 8; ///< px, the largest shift along y

constexpr double most_windows = 1500; ///< on the grid: enough for a median to 0.01 px, in some 20 ms

/// Mean squared slope along y, per px, over the mean square: a wave of 44 px has as much. What runs slower is the
/// shading of a bent surface, whose correlation is as high at one shift as at the next.
constexpr double least_sharpness = 0.02;

/// Right windows of textured surfaces correlate by 0.9 and more, wrong ones seldom by more than a half.
constexpr double least_correlation = 0.8;

/// Share of a window that is measured: the outline of a surface is no texture of it, and lies elsewhere for each
/// camera.
constexpr double least_measured = 0.9;

constexpr int least_textured = 20; ///< windows; fewer say nothing of a picture

/// Share of the windows. On plain plaster and on a white wall up to a twentieth has it: outlines and shadows, which
/// each camera sees elsewhere. Painted and modelled surfaces have a quarter and more.
constexpr double least_share_textured = 0.1;

/// Degrees by which rows run off over the picture, and four standard deviations of that: a roll of 0.1 degrees moves a
/// seventh of a bust's points by more than 1 mm at 600 mm, one of 0.3 degrees three quarters.
constexpr double warn_turn = 0.06, most_turn = 0.15, sure = 4.0;

/// px over the picture: small pictures have 0.5 of shading alone.
constexpr double warn_run = 0.6;

constexpr double spoil_above = 1.0; ///< px of the median

constexpr double most_scatter = 1.5; ///< px

constexpr double least_found = 0.1;

/// A window that was compared.
struct Window {
    cv::Point at { -1, -1 };
    bool textured = false;
    std::optional<double> shift; ///< px; nothing: no match near the row
};

/// Correlation of two windows of structure, where both have some; 0 where that is too little.
double correlation(const RowPictures& p, const cv::Rect& own, const cv::Rect& other)
{
    double count = 0, a = 0, b = 0, aa = 0, bb = 0, ab = 0;
    for (int y = 0; y < own.height; ++y) {
        const auto *as = p.left.ptr<float>(own.y + y) + own.x, *bs = p.right.ptr<float>(other.y + y) + other.x;
        const auto *a_has = p.has.ptr<float>(own.y + y) + own.x, *b_has = p.has.ptr<float>(other.y + y) + other.x;
        for (int x = 0; x < own.width; ++x) {
            if (a_has[x] * b_has[x] == 0.0F) continue;
            const auto one = static_cast<double>(as[x]), two = static_cast<double>(bs[x]);
            count += 1;
            a += one;
            b += two;
            aa += one * one;
            bb += two * two;
            ab += one * two;
        }
    }
    constexpr double least_common = 0.7;
    if (count < least_common * own.area()) return 0.0;
    return (ab - a * b / count) / std::sqrt(std::max((aa - a * a / count) * (bb - b * b / count), 1e-12));
}

/// The highest inner correlation, to sub-pixels.
std::optional<double> peak_of(const std::array<double, 2 * reach + 1>& values)
{
    const auto best = std::max_element(values.begin(), values.end());
    if (*best < least_correlation || best == values.begin() || best + 1 == values.end()) return std::nullopt;
    const double before = best[-1], after = best[1], bend = before - 2 * *best + after;
    return static_cast<double>(best - values.begin()) - reach + (bend < 0 ? 0.5 * (before - after) / bend : 0.0);
}

/// Whether a window shows where along y it lies.
bool has_texture(const cv::Mat& own, double least)
{
    const cv::Mat slopes = 0.5 * (own.rowRange(2, own.rows) - own.rowRange(0, own.rows - 2));
    const auto pixels = static_cast<double>(own.total());
    const double squares = own.dot(own), mean = cv::mean(own)[0];
    return squares - mean * mean * pixels >= least * least * pixels && slopes.dot(slopes) >= least_sharpness * squares;
}

Window compare(const RowPictures& p, cv::Point middle)
{
    Window window;
    const cv::Rect area(middle.x - half_width, middle.y - half_height, 2 * half_width + 1, 2 * half_height + 1);
    if (cv::sum(p.has(area))[0] < least_measured * area.area()) return window;
    window.at = middle;
    window.textured = has_texture(p.left(area), p.least_texture);
    if (!window.textured) return window;
    std::array<double, 2 * reach + 1> values {};
    cv::Rect other = area - cv::Point(0, reach);
    for (double& value : values) {
        value = correlation(p, area, other);
        ++other.y;
    }
    window.shift = peak_of(values);
    return window;
}

/// Of the windows' grid, px: by which there are as many of them as wanted.
int step_between(const cv::Mat& disparity)
{
    const double area = std::max(1, cv::countNonZero(disparity == disparity));
    return std::max(4, static_cast<int>(std::sqrt(area / most_windows)));
}

/// On a grid; the first measured pixel of each cell's row.
std::vector<Window> compare_all(const RowPictures& p)
{
    const int margin = half_height + reach, rows = p.left.rows - 2 * margin, columns = p.left.cols - 2 * half_width;
    if (rows <= 0 || columns <= 0) return {};
    const int step = step_between(p.disparity);
    std::vector<std::vector<Window>> found(static_cast<std::size_t>((rows + step - 1) / step));
    in_parallel(found.size(), [&](std::size_t i) {
        const int y = margin + static_cast<int>(i) * step;
        for (int x = half_width; x < p.left.cols - half_width; x += step)
            if (!std::isnan(p.disparity.at<float>(y, x))) found[i].push_back(compare(p, { x, y }));
    });
    std::vector<Window> all;
    for (const std::vector<Window>& row : found)
        std::copy_if(
            row.begin(), row.end(), std::back_inserter(all), [](const Window& window) { return window.at.x >= 0; });
    return all;
}

/// The plane through the row errors, by least squares over those within three standard deviations of the last one.
void fit_plane(const std::vector<Window>& windows, cv::Size size, RowError& e)
{
    e.a = e.median;
    double deviation = std::max(e.scatter, 0.1);
    for (int round = 0; round < 3; ++round) {
        cv::Matx33d normal = cv::Matx33d::eye() * 1e-6; // none of the windows may have another x or y
        cv::Vec3d right;
        std::vector<double> rests;
        for (const Window& window : windows) {
            if (!window.shift) continue;
            const cv::Vec3d at(1.0, window.at.x / static_cast<double>(size.width) - 0.5,
                window.at.y / static_cast<double>(size.height) - 0.5);
            const double rest = *window.shift - at.dot({ e.a, e.b, e.c });
            rests.push_back(std::abs(rest));
            if (std::abs(rest) > 3 * deviation) continue;
            normal += at * at.t();
            right += at * *window.shift;
        }
        const cv::Vec3d plane = normal.inv(cv::DECOMP_CHOLESKY) * right;
        e.a = plane[0];
        e.b = plane[1];
        e.c = plane[2];
        deviation = std::max(1.4826 * median(rests), 0.1);
    }
}

/// Whether the rows run off by more than `degrees` and `px`, along x or along y, beyond chance.
bool runs(const RowError& e, double degrees, double px)
{
    constexpr double radians = 3.14159265358979323846 / 180;
    const double deviation = e.scatter * std::sqrt(12 / std::max(1.0, e.found * e.textured * e.own_share));
    const auto off = [&](double run, int length) {
        return std::abs(run) > std::max({ std::tan(degrees * radians) * length, px, sure * deviation });
    };
    return off(e.b, e.size.width) || off(e.c, e.size.height);
}

bool runs_off(const RowError& e)
{
    return runs(e, warn_turn, warn_run);
}

bool is_off(const RowError& e)
{
    return e.found <= least_found || std::abs(e.median) > spoil_above;
}

bool spoilt(const RowError& e)
{
    return is_off(e) || e.scatter > most_scatter || runs(e, most_turn, spoil_above);
}

/// Windows are found and in the mean right, but contradict one another.
bool contradicts_itself(const RowError& e)
{
    return e.scatter > most_scatter && !is_off(e);
}

RowError error_of(const std::vector<Window>& windows, cv::Size size)
{
    RowError e;
    e.size = size;
    std::vector<double> shifts;
    for (const Window& window : windows) {
        ++e.windows;
        e.textured += window.textured ? 1 : 0;
        if (!window.shift) continue;
        shifts.push_back(*window.shift);
        e.shifts.push_back({ window.at, *window.shift });
    }
    if (shifts.empty()) return e;
    e.found = static_cast<double>(shifts.size()) / e.textured;
    e.median = median(shifts);
    for (double& shift : shifts)
        shift = std::abs(shift - e.median);
    e.scatter = 1.4826 * median(shifts);
    fit_plane(windows, size, e);
    return e;
}

std::string figures_of(const RowError& e)
{
    std::string text = percent(e.found, 1.0) + " of " + std::to_string(e.textured)
        + " windows with texture are found in the other camera near their row";
    if (e.found > 0) text += ", by median " + number(e.median, 2) + " px off, scatter " + number(e.scatter, 2) + " px";
    return text;
}

/// The likeliest cause in words, and what to do.
std::pair<std::string, std::string> cause_of(const RowError& e, bool exchanged_fits)
{
    if (exchanged_fits)
        return { "the cameras are exchanged: the frames fit the calibration the other way round",
            "exchange cam0 and cam1" };
    if (e.found <= least_found)
        return { "the cameras do not see the same surface: a mixed capture, or a foreign calibration",
            "record both cameras' frames at once, and measure with the calibration of these cameras" };
    if (runs_off(e) && std::abs(e.c) > std::abs(e.b))
        return { "row errors run by " + number(std::abs(e.c), 1)
                + " px from top to bottom: a mixed capture (the scene moved between the cameras' frames), or a foreign "
                  "calibration",
            "record both cameras' frames at once, and measure with the calibration of these cameras" };
    if (contradicts_itself(e) && !runs_off(e))
        return { "a foreign calibration: the row errors differ from place to place",
            "measure with the calibration of these cameras" };
    return { runs_off(e) ? "a foreign or stale calibration: one camera has rolled against the other, by "
                + number(std::abs(e.b), 1) + " px over the picture"
                         : "a foreign or stale calibration: one camera has turned up or down since",
        "calibrate again, and fasten the cameras" };
}

} // namespace

bool RowError::tested() const
{
    return textured >= std::max<double>(least_textured, least_share_textured * windows);
}

bool RowError::fits() const
{
    return tested() && !spoilt(*this);
}

Finding judge_rows(const RowError& e, bool exchanged_fits)
{
    if (!e.tested())
        return { "rows", Weight::unknown, "",
            "rows not tested: no texture (" + std::to_string(e.textured) + " of " + std::to_string(e.windows)
                + " windows have enough to compare the cameras by); a stale calibration, or frames of two scenes, may "
                  "not "
                  "show here",
            "measure something with texture from time to time" };
    if (e.fits() && std::abs(e.median) < rows_warn_from && !runs_off(e))
        return { "rows", Weight::good, "", figures_of(e), "" };
    const auto [cause, advice] = cause_of(e, exchanged_fits);
    return { "rows", e.fits() ? Weight::worse : Weight::spoils, "", figures_of(e) + "; " + cause, advice };
}

cv::Mat textured_pixels(const cv::Mat& picture, double noise)
{
    const cv::Mat structure = structure_along_y(picture, cv::Mat::ones(picture.size(), CV_32F));
    cv::Mat squares;
    cv::blur(structure.mul(structure), squares, { 2 * half_width + 1, 2 * half_height + 1 });
    const double least = least_texture(noise);
    return squares >= least * least;
}

double grey_noise(const cv::Mat& picture)
{
    constexpr int rows_looked_at = 64;
    constexpr double to_sigma = 1 / (0.6745 * 6); // the mask's squares sum to 36
    const double mean = cv::mean(picture)[0];
    std::vector<double> rests;
    for (int y = 1; y + 1 < picture.rows; y += std::max(1, picture.rows / rows_looked_at)) {
        const uchar *above = picture.ptr(y - 1), *row = picture.ptr(y), *below = picture.ptr(y + 1);
        for (int x = 1; x + 1 < picture.cols; ++x)
            if (row[x] >= mean && row[x] < 255)
                rests.push_back(std::abs(above[x - 1] + above[x + 1] + below[x - 1] + below[x + 1]
                    - 2 * (above[x] + below[x] + row[x - 1] + row[x + 1]) + 4 * row[x]));
    }
    return rests.empty() ? 0 : to_sigma * median(rests);
}

RowError test_rows(const cv::Mat& left, const cv::Mat& right, const cv::Mat& disparity, double noise)
{
    constexpr double window_area = (2 * half_width + 1) * (2 * half_height + 1);
    RowError e = error_of(compare_all(row_pictures(left, right, disparity, noise)), left.size());
    e.own_share = std::min(1.0, std::pow(step_between(disparity), 2) / window_area);
    return e;
}

} // namespace vexo
