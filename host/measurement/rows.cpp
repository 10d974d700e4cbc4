#include "host/measurement/rows.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "base/text.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <vector>

namespace vexo {

namespace {

constexpr int half_height = 15, half_width = 5; ///< of a window of 31 x 11 px

constexpr int reach = 8; ///< px, the largest shift along y

constexpr double most_windows = 1500; ///< on the grid: enough for a median to 0.01 px, in some 20 ms

/// Grey levels, standard deviation along y: shading alone has as much.
constexpr double least_texture = 3.0;

/// Rectification and smoothing leave 0.3 of a grey value's noise. Texture of three times that, and it, correlate by
/// 0.9.
constexpr double least_texture_per_noise = 0.95;

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

constexpr double spoil_above = 1.0; ///< px of the median

constexpr double most_scatter = 1.5; ///< px

constexpr double least_found = 0.1;

/// What is left of a picture without its slow run along y, which correlates with itself at any shift, and with less
/// noise.
cv::Mat structure_along_y(const cv::Mat& picture)
{
    cv::Mat fine, smooth, slow;
    picture.convertTo(fine, CV_32F);
    cv::blur(fine, smooth, { 3, 3 });
    cv::blur(smooth, slow, { 1, 2 * half_height + 1 });
    return smooth - slow;
}

struct Pictures {
    cv::Mat left, right; ///< structure along y
    cv::Mat disparity;
    double least_texture = 0; ///< grey levels

    /// The share of an area that was measured.
    double measured(const cv::Rect& area) const
    {
        const cv::Mat around = disparity(area);
        return cv::countNonZero(around == around) / static_cast<double>(area.area());
    }

    /// Camera 1 where camera 0 sees (x, y), by the disparity there, or by `otherwise` where none was measured.
    std::optional<float> partner(int x, int y, float otherwise) const
    {
        const float measured = disparity.at<float>(y, x);
        const float at = static_cast<float>(x) - (std::isnan(measured) ? otherwise : measured);
        if (!(at >= 0.0F && at < static_cast<float>(right.cols - 1))) return std::nullopt;
        const int column = static_cast<int>(at);
        const float part = at - static_cast<float>(column);
        const auto* row = right.ptr<float>(y);
        return (1.0F - part) * row[column] + part * row[column + 1];
    }
};

/// A window that was compared.
struct Window {
    cv::Point at { -1, -1 };
    bool textured = false;
    bool whole = false;          ///< all was measured that its structure is made of
    std::optional<double> shift; ///< px; nothing: no match near the row
};

/// Correlation of two equally long runs of values without means.
double correlation(const float* one, const float* other, std::size_t count)
{
    double mixed = 0, own = 0, others = 0;
    for (std::size_t i = 0; i < count; ++i) {
        mixed += static_cast<double>(one[i] * other[i]);
        own += static_cast<double>(one[i] * one[i]);
        others += static_cast<double>(other[i] * other[i]);
    }
    return mixed / std::sqrt(std::max(own * others, 1e-12));
}

/// The highest inner correlation, to sub-pixels.
std::optional<double> peak_of(const std::array<double, 2 * reach + 1>& values)
{
    const auto best = std::max_element(values.begin(), values.end());
    if (*best < least_correlation || best == values.begin() || best + 1 == values.end()) return std::nullopt;
    const double before = best[-1], after = best[1], bend = before - 2 * *best + after;
    return static_cast<double>(best - values.begin()) - reach + (bend < 0 ? 0.5 * (before - after) / bend : 0.0);
}

/// What camera 0 has in a window, row by row.
std::vector<float> own_values(const Pictures& p, const cv::Rect& window)
{
    const cv::Mat own = p.left(window).clone();
    return { own.begin<float>(), own.end<float>() };
}

/// Whether a window of that width shows where along y it lies.
bool has_texture(const std::vector<float>& own, std::size_t columns, double least)
{
    double squares = 0.0, slopes = 0.0;
    for (const float value : own)
        squares += static_cast<double>(value * value);
    for (std::size_t i = 2 * columns; i < own.size(); ++i)
        slopes += std::pow(0.5 * static_cast<double>(own[i] - own[i - 2 * columns]), 2.0);
    return squares >= least * least * static_cast<double>(own.size()) && slopes >= least_sharpness * squares;
}

/// The same of camera 1, by `reach` rows higher; empty where some of it lies beside the picture.
std::vector<float> others_values(const Pictures& p, cv::Point middle)
{
    const float disparity = p.disparity.at<float>(middle);
    std::vector<float> values;
    for (int y = middle.y - half_height - reach; y <= middle.y + half_height + reach; ++y)
        for (int x = middle.x - half_width; x <= middle.x + half_width; ++x) {
            const std::optional<float> seen = p.partner(x, y, disparity);
            if (!seen) return {};
            values.push_back(*seen);
        }
    return values;
}

Window compare(const Pictures& p, cv::Point middle)
{
    Window window;
    const cv::Rect area(middle.x - half_width, middle.y - half_height, 2 * half_width + 1, 2 * half_height + 1);
    if (p.measured(area) < least_measured) return window;
    const cv::Rect beyond(area.x, area.y - half_height, area.width, area.height + 2 * half_height);
    window.whole = p.measured(beyond & cv::Rect({}, p.left.size())) == 1.0;
    const std::vector<float> own = own_values(p, area);
    const bool textured = has_texture(own, static_cast<std::size_t>(area.width), p.least_texture);
    const std::vector<float> other = textured ? others_values(p, middle) : std::vector<float>();
    if (textured && other.empty()) return window;
    window.at = middle;
    window.textured = textured;
    if (!textured) return window;
    std::array<double, 2 * reach + 1> values {};
    for (std::size_t shift = 0; shift < values.size(); ++shift)
        values[shift] = correlation(own.data(), other.data() + shift * (2 * half_width + 1), own.size());
    window.shift = peak_of(values);
    return window;
}

/// On a grid, with a step by which there are as many of them as wanted; the first measured pixel of each cell's row.
std::vector<Window> compare_all(const Pictures& p)
{
    const int margin = half_height + reach, rows = p.left.rows - 2 * margin, columns = p.left.cols - 2 * half_width;
    if (rows <= 0 || columns <= 0) return {};
    const double area = std::max(1, cv::countNonZero(p.disparity == p.disparity));
    const int step = std::max(4, static_cast<int>(std::sqrt(area / most_windows)));
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
    const double deviation = e.scatter * std::sqrt(12 / std::max(1.0, e.found * e.textured));
    const auto off = [&](double run, int length) {
        return std::abs(run) > std::max({ std::tan(degrees * radians) * length, px, sure * deviation });
    };
    return off(e.b, e.size.width) || off(e.c, e.size.height);
}

bool runs_off(const RowError& e)
{
    return runs(e, warn_turn, rows_warn_from);
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
    const cv::Mat structure = structure_along_y(picture);
    cv::Mat squares;
    cv::blur(structure.mul(structure), squares, { 2 * half_width + 1, 2 * half_height + 1 });
    const double least = std::max(least_texture, least_texture_per_noise * noise);
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
    const Pictures pictures { structure_along_y(left), structure_along_y(right), disparity,
        std::max(least_texture, least_texture_per_noise * noise) };
    std::vector<Window> windows = compare_all(pictures);
    RowError all = error_of(windows, left.size());
    if (!contradicts_itself(all)) return all;
    // What holds some outline shows it where either camera sees it.
    windows.erase(
        std::remove_if(windows.begin(), windows.end(), [](const Window& w) { return !w.whole; }), windows.end());
    return error_of(windows, left.size());
}

} // namespace vexo
