#include "host/reports/calibration_page.h"

#include "base/pictures.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/calibration/board_heights.h"
#include "host/cameras/calibration_notes.h"
#include "host/reports/calibration_text.h"
#include "host/reports/html.h"
#include "host/reports/share_section.h"
#include "host/reports/svg.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>

namespace vexo {

namespace {

constexpr double drawing_width = 560.0; ///< units of the drawings

constexpr int thumbnail_width = 200; ///< px

/// By how much residuals are enlarged: so that one of usual length is some tens of px long, in tens.
double arrow_scale_of(const Calibrated& c)
{
    double rms = 1e-3;
    for (const CameraFit& fit : c.fits)
        rms = std::max(rms, std::isfinite(fit.rms) ? fit.rms : 0.0);
    return std::pow(10.0, std::clamp(std::round(std::log10(15.0 / rms)), 0.0, 3.0));
}

std::string or_dash(double value, int decimals)
{
    return std::isfinite(value) ? number(value, decimals) : "&ndash;";
}

/// Where the markers of all used views lie in the image; cells of the 8 x 6 grid without any are red.
std::string coverage_drawing(const Calibrated& c, std::size_t camera)
{
    constexpr int across = 8, down = 6;
    const double scale = drawing_width / c.size.width, height = c.size.height * scale;
    std::array<int, across * down> cells {};
    std::string dots;
    for (std::size_t v = 0; v < c.views.count(); ++v) {
        for (const cv::Point2f& p : c.views.cameras[camera][v].markers) {
            if (!c.used[v] || p.x == FLT_MAX) continue;
            const int x = std::clamp(static_cast<int>(p.x * across / static_cast<float>(c.size.width)), 0, across - 1);
            const int y = std::clamp(static_cast<int>(p.y * down / static_cast<float>(c.size.height)), 0, down - 1);
            ++cells[static_cast<std::size_t>(y) * across + static_cast<std::size_t>(x)];
            dots += stroke({ p.x * scale, p.y * scale }, { 0, 0 });
        }
    }
    std::string svg = open_svg(drawing_width, height);
    for (int i = 0; i < across * down; ++i) {
        if (cells[static_cast<std::size_t>(i)] > 0) continue;
        const int column = i % across, row = i / across;
        svg += "<rect x=\"" + number(column * drawing_width / across, 1) + "\" y=\"" + number(row * height / down, 1)
            + "\" width=\"" + number(drawing_width / across, 1) + "\" height=\"" + number(height / down, 1)
            + "\" fill=\"#cc3340\" fill-opacity=\".13\"/>";
    }
    return svg + "<path d=\"" + dots
        + "\" stroke=\"#2563a8\" stroke-opacity=\".45\" stroke-width=\"2.6\" stroke-linecap=\"round\"/></svg>";
}

/// Residuals of all markers, and their means over a grid: a pattern in these is what the camera model cannot follow.
std::string residual_drawing(const Calibrated& c, std::size_t camera)
{
    constexpr int across = 16, down = 12, least = 3;
    const double arrow_scale = arrow_scale_of(c), shown = 10.0 / arrow_scale; // px
    const double scale = drawing_width / c.size.width, height = c.size.height * scale;
    struct Cell {
        cv::Point2d at;
        cv::Vec2d error;
        int count = 0;
    };
    std::array<Cell, across * down> cells {};
    std::string fine, bold, feet;
    for (const Residual& r : c.fits[camera].residuals) {
        fine += stroke(r.seen_px * scale, r.error_px * (scale * arrow_scale));
        const int x = std::clamp(static_cast<int>(r.seen_px.x * across / c.size.width), 0, across - 1);
        const int y = std::clamp(static_cast<int>(r.seen_px.y * down / c.size.height), 0, down - 1);
        Cell& cell = cells[static_cast<std::size_t>(y) * across + static_cast<std::size_t>(x)];
        cell.at += r.seen_px;
        cell.error += r.error_px;
        ++cell.count;
    }
    for (const Cell& cell : cells) {
        if (cell.count < least) continue;
        const cv::Point2d at = cell.at * (scale / cell.count);
        bold += stroke(at, cell.error * (scale * arrow_scale / cell.count));
        feet += stroke(at, { 0, 0 });
    }
    const double mark = shown * scale * arrow_scale;
    return open_svg(drawing_width, height + 20) + "<path d=\"" + fine
        + "\" stroke=\"#6b8fb8\" stroke-opacity=\".8\" stroke-width=\".7\" fill=\"none\"/><path d=\"" + feet
        + "\" stroke=\"#b3202c\" stroke-width=\"3.4\" stroke-linecap=\"round\"/><path d=\"" + bold
        + "\" stroke=\"#b3202c\" stroke-width=\"1.8\" fill=\"none\"/><path d=\""
        + stroke({ 8, height + 11 }, { mark, 0 }) + "\" stroke=\"#1c2430\" stroke-width=\"2\"/>"
        + svg_text(16 + mark, height + 15, short_number(shown) + " px")
        + svg_text(drawing_width - 8, height + 15, "blue: each marker, red: mean of a cell", "text-anchor=\"end\"")
        + "</svg>";
}

/// One bar a view; the dashed line is the median, bars of views that stand out are red.
std::string bar_drawing(const Calibrated& c, const std::vector<double>& values)
{
    constexpr double height = 150, left = 44, base = 120;
    const std::vector<std::size_t> standing_out = outliers(values);
    double most = 1e-6;
    for (const double v : values)
        if (std::isfinite(v)) most = std::max(most, v);
    const double step = (drawing_width - left - 8) / static_cast<double>(values.size());
    std::string svg = open_svg(drawing_width, height);
    for (std::size_t v = 0; v < values.size(); ++v) {
        const double x = left + step * static_cast<double>(v);
        const std::string label = std::to_string(c.views.cameras[0][v].number);
        if (values.size() <= 40) svg += svg_text(x + 0.5 * step, base + 14, label, "text-anchor=\"middle\"");
        if (!std::isfinite(values[v])) continue;
        const double bar = values[v] / most * (base - 14);
        const bool out = std::find(standing_out.begin(), standing_out.end(), v) != standing_out.end();
        svg += "<rect x=\"" + number(x + 0.12 * step, 1) + "\" y=\"" + number(base - bar, 1) + "\" width=\""
            + number(0.76 * step, 1) + "\" height=\"" + number(bar, 1) + "\" fill=\"" + (out ? "#cc3340" : "#3b7dbd")
            + "\"><title>view " + label + ": " + number(values[v], 3) + " px</title></rect>";
    }
    const double middle = base - median(values) / most * (base - 14);
    if (std::isfinite(middle))
        svg += "<path d=\"" + stroke({ left, middle }, { drawing_width - left - 8, 0 })
            + "\" stroke=\"#1c2430\" stroke-dasharray=\"4 4\"/>";
    return svg + svg_text(4, 18, number(most, 3)) + svg_text(4, base, "0 px") + svg_text(4, base + 26, "view")
        + "</svg>";
}

/// Colour of a value from -1 (blue) over 0 (grey) to 1 (red).
std::string diverging(double value)
{
    const double v = std::clamp(value, -1.0, 1.0), strength = std::abs(v);
    const auto mix = [strength](double from, double to) {
        return std::to_string(static_cast<int>(std::lround(from + strength * (to - from))));
    };
    return v > 0 ? "rgb(" + mix(225, 179) + "," + mix(228, 32) + "," + mix(232, 44) + ")"
                 : "rgb(" + mix(225, 32) + "," + mix(228, 90) + "," + mix(232, 180) + ")";
}

/// Heights of the board's markers off their plane, mm; NaN: not known.
std::string heights_drawing(const BoardLayout& b, const std::vector<double>& heights)
{
    const double step = drawing_width / (b.columns + 1), height = step * (b.rows + 1);
    double most = 1e-6;
    for (const double z : heights)
        if (std::isfinite(z)) most = std::max(most, std::abs(z));
    std::string svg = open_svg(drawing_width, height + 20);
    for (std::size_t k = 0; k < heights.size(); ++k) {
        const double z = heights[k];
        if (!std::isfinite(z)) continue;
        const int column = static_cast<int>(k) / b.rows, row = static_cast<int>(k) % b.rows;
        svg += svg_dot(step * (b.columns - column), step * (row + 1), 0.42 * step,
            "fill=\"" + diverging(z / most) + "\"><title>" + number(z, 3) + " mm</title></circle");
    }
    return svg
        + svg_text(8, height + 14,
            "red: towards the cameras, blue: away; full colour " + number(most, 3) + " mm. Board seen from its front.")
        + "</svg>";
}

/// The shape that was learnt, and what is left beside it as the pair sees it.
std::string shape_drawings(const Calibrated& c)
{
    std::string html = "<div class=\"pictures\">";
    if (c.shape.kept)
        html += "<div><h3>Learnt, and in board.yaml</h3>" + heights_drawing(c.board.layout, heights_of(c.board).mm)
            + "</div>";
    if (c.is_pair()) {
        std::vector<double> left;
        for (const cv::Vec3d& off : c.pair.shape)
            left.push_back(off[2]);
        html += std::string("<div>") + (c.shape.kept ? "<h3>What is left</h3>" : "")
            + heights_drawing(c.board.layout, left) + "</div>";
    }
    return html + "</div>";
}

std::string thumbnail(const BoardPicture& picture)
{
    const cv::Mat drawing = decoded_drawing(picture);
    cv::Mat small;
    const double scale = static_cast<double>(thumbnail_width) / drawing.cols;
    cv::resize(drawing, small, {}, scale, scale, cv::INTER_AREA);
    return picture_html(encode(".jpg", small), "image/jpeg", "what was recognised in " + picture.name);
}

std::string side_by_side(const Calibrated& c, std::string (*draw)(const Calibrated&, std::size_t))
{
    std::string html = "<div class=\"pictures\">";
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        html += "<div><h3>Camera " + std::to_string(k) + "</h3>" + draw(c, k) + "</div>";
    return html + "</div>";
}

std::string cameras_table(const Calibrated& c)
{
    Table table { { { "" }, { "fx, fy [px]", true }, { "cx, cy [px]", true }, { "distortion k1 k2 p1 p2 k3 ..." } },
        {} };
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        const cv::Matx33d& K = c.cameras[k].K;
        std::string distortion;
        for (auto d = c.cameras[k].D.begin<double>(); d != c.cameras[k].D.end<double>(); ++d)
            distortion += number(*d, 5) + " ";
        table.rows.push_back({ "camera " + std::to_string(k), number(K(0, 0), 2) + ", " + number(K(1, 1), 2),
            number(K(0, 2), 2) + ", " + number(K(1, 2), 2), distortion });
    }
    return table_html(table) + (c.is_pair() ? "<p>Baseline " + number(c.baseline, 3) + " mm.</p>" : "");
}

std::string view_row(const Calibrated& c, std::size_t v, bool stands_out)
{
    std::string html = std::string("<tr class=\"")
        + (stands_out       ? "out"
                : c.used[v] ? ""
                            : "unused")
        + "\"><td>" + std::to_string(c.views.cameras[0][v].number) + (c.used[v] ? "" : "<br>not used")
        + (stands_out ? "<br>stands out" : "") + "</td>";
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        const BoardPicture& picture = c.views.cameras[k][v];
        html += "<td>" + thumbnail(picture) + "</td><td>" + escaped(picture.name) + "<br>"
            + escaped(outcome(picture, c.board)) + "</td><td class=\"n\">" + or_dash(c.fits[k].view_rms[v], 3)
            + "</td><td class=\"n\">" + or_dash(c.fits[k].view_tilt[v], 0) + "</td>";
    }
    if (c.is_pair()) html += "<td class=\"n\">" + or_dash(c.pair.view_row[v], 3) + "</td>";
    return html + "</tr>";
}

std::string views_table(const Calibrated& c)
{
    const std::vector<std::size_t> out = outlying_views(c);
    std::string html = "<div class=\"wide\"><table><tr><th>view</th>";
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        html += "<th>camera " + std::to_string(k)
            + "</th><th></th><th class=\"n\">rms [px]</th><th class=\"n\">tilt [&deg;]</th>";
    html += c.is_pair() ? "<th class=\"n\">row error [px]</th></tr>" : "</tr>";
    for (std::size_t v = 0; v < c.views.count(); ++v)
        html += view_row(c, v, std::find(out.begin(), out.end(), v) != out.end());
    return html + "</table></div>";
}

std::string bars_of(const Calibrated& c)
{
    std::string html = "<div class=\"pictures\">";
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        html += "<div><h3>Camera " + std::to_string(k) + ", rms</h3>" + bar_drawing(c, c.fits[k].view_rms) + "</div>";
    if (!c.agreement.error_px.empty())
        html += "<div><h3>Agreement of the two cameras, px</h3>" + bar_drawing(c, c.agreement.error_px) + "</div>";
    if (c.is_pair())
        html += "<div><h3>Row error after rectification, rms</h3>" + bar_drawing(c, c.pair.view_row) + "</div>";
    return html + "</div>";
}

Weight weight_of(const std::string& verdict)
{
    return verdict == bad_calibration ? Weight::spoils : verdict == usable_calibration ? Weight::worse : Weight::good;
}

} // namespace

std::string calibration_html(const Calibrated& c, const std::vector<Finding>& findings)
{
    const std::string judged = calibration_verdict(findings);
    std::string head = std::to_string(c.used_count()) + " views, " + size_text(c.size.width, c.size.height)
        + " px, rms " + number(c.rms, 3) + " px";
    if (c.is_pair())
        head += ", row error " + number(c.pair.row_systematic, 3) + " px, baseline " + number(c.baseline, 2) + " mm";
    Page page { "Calibration", c.is_pair() ? "Calibration of a pair of cameras" : "Calibration of a camera",
        weight_of(judged), "The calibration is " + judged, head + ". Board: " + describe(c.board), {} };
    page.sections = { { "Is it good?", "Every answer with its figures, the gravest first, and what to do beside it.",
                          findings_html(findings, question_of) },
        share_section(c),
        { "Which view spoils it?",
            "Error of each view with the best pose of the board for that view alone. Red: more than twice the median.",
            bars_of(c) },
        { "Where were the markers?", "All markers of the used views in the image; red cells have none.",
            side_by_side(c, coverage_drawing) },
        { "What do the cameras not explain?",
            "Difference between a marker and where the calibration puts it, " + number(arrow_scale_of(c), 0)
                + " times enlarged. Red arrows that swirl or point outwards together show distortion that the model "
                  "does not follow.",
            side_by_side(c, residual_drawing) } };
    if (c.is_pair() || c.shape.kept)
        page.sections.push_back({ "Is the printed board flat?",
            "Height of each marker off the plane, as all views together say it.", shape_drawings(c) });
    page.sections.push_back(
        { "Cameras", "Intrinsics in px; x right, y down, (0, 0) the centre of the top left pixel.", cameras_table(c) });
    page.sections.push_back({ "Views",
        "What was recognised, and how well it fits. In all: " + refinement_line(c.refinement) + ".", views_table(c) });
    return page_html(page);
}

} // namespace vexo
