#include "host/reports/calibration_page.h"

#include "base/pictures.h"
#include "base/statistics.h"
#include "base/text.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>

namespace vexo {

namespace {

constexpr double drawing_width = 560.0; ///< units of the drawings

constexpr int thumbnail_width = 200; ///< px

constexpr double arrow_scale = 100.0;

const char* const style = R"(
body{font:15px/1.45 system-ui,sans-serif;margin:0;color:#1c2430;background:#f4f6f8}
main{max-width:1240px;margin:0 auto;padding:24px}
header{padding:20px 24px;border-radius:10px;color:#fff;margin-bottom:20px}
header h1{margin:0 0 4px;font-size:24px}header p{margin:0;opacity:.92}
.good{background:#1f7a4d}.usable{background:#a36a00}.not{background:#a5282c}
section{background:#fff;border:1px solid #dfe4ea;border-radius:10px;padding:16px 20px;margin-bottom:20px}
h2{font-size:17px;margin:0 0 10px}h3{font-size:14px;margin:0 0 4px;color:#48566a}
p.about{margin:0 0 12px;color:#5a6778;font-size:13.5px}
table{border-collapse:collapse;width:100%}td,th{padding:6px 10px;border-bottom:1px solid #e8ecf0;text-align:left;vertical-align:top}
th{font-weight:600;color:#48566a;font-size:13px}td.n{text-align:right;font-variant-numeric:tabular-nums}
.dot{display:inline-block;width:11px;height:11px;border-radius:50%;margin-right:8px}
.l0{background:#1f9d5f}.l1{background:#e0a200}.l2{background:#cc3340}.l3{background:#9aa5b1}
.advice{color:#8a4b00;font-size:13.5px}
.two{display:flex;flex-wrap:wrap;gap:20px}.two>div{flex:1 1 480px;min-width:0;max-width:600px}
svg{width:100%;height:auto;background:#fbfcfd;border:1px solid #e3e8ed;border-radius:6px}
img{display:block;border-radius:4px;width:200px}
tr.out td{background:#fff1f1}tr.unused td{color:#8390a0}
)";

std::string escaped(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

/// Source: RFC 4648.
std::string base64(const std::vector<unsigned char>& bytes)
{
    const char* const letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        unsigned value = 0;
        for (std::size_t k = 0; k < 3; ++k)
            value = value << 8 | (k < n ? bytes[i + k] : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= n ? letters[value >> (18 - 6 * k) & 63U] : '=';
    }
    return out;
}

std::string figure(double value, int decimals)
{
    return std::isfinite(value) ? number(value, decimals) : "&ndash;";
}

std::string open_svg(double width, double height)
{
    return "<svg viewBox=\"0 0 " + number(width, 0) + " " + number(height, 0) + "\">";
}

std::string svg_text(double x, double y, const std::string& text, const std::string& more = "")
{
    return "<text x=\"" + number(x, 1) + "\" y=\"" + number(y, 1) + "\" font-size=\"11\" fill=\"#48566a\" " + more + ">"
        + text + "</text>";
}

std::string svg_dot(double x, double y, double r, const std::string& more)
{
    return "<circle cx=\"" + number(x, 1) + "\" cy=\"" + number(y, 1) + "\" r=\"" + number(r, 1) + "\" " + more + "/>";
}

/// "M x y l dx dy" of a path.
std::string stroke(cv::Point2d from, cv::Vec2d along)
{
    return "M" + number(from.x, 1) + " " + number(from.y, 1) + "l" + number(along[0], 1) + " " + number(along[1], 1);
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
            ++cells[static_cast<std::size_t>(y * across + x)];
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
        Cell& cell = cells[static_cast<std::size_t>(y * across + x)];
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
    const double tenth = 0.1 * scale * arrow_scale;
    return open_svg(drawing_width, height + 20) + "<path d=\"" + fine
        + "\" stroke=\"#6b8fb8\" stroke-opacity=\".8\" stroke-width=\".7\" fill=\"none\"/><path d=\"" + feet
        + "\" stroke=\"#b3202c\" stroke-width=\"3.4\" stroke-linecap=\"round\"/><path d=\"" + bold
        + "\" stroke=\"#b3202c\" stroke-width=\"1.8\" fill=\"none\"/><path d=\""
        + stroke({ 8, height + 11 }, { tenth, 0 }) + "\" stroke=\"#1c2430\" stroke-width=\"2\"/>"
        + svg_text(16 + tenth, height + 15, "0.1 px")
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

/// Height of the board's markers off their plane, as the pair sees it.
std::string shape_drawing(const Calibrated& c)
{
    const BoardLayout& b = c.board.layout;
    const double step = drawing_width / (b.columns + 1), height = step * (b.rows + 1);
    double most = 1e-6;
    for (const cv::Vec3d& s : c.pair.shape)
        if (std::isfinite(s[2])) most = std::max(most, std::abs(s[2]));
    std::string svg = open_svg(drawing_width, height + 20);
    for (std::size_t k = 0; k < c.pair.shape.size(); ++k) {
        const double z = c.pair.shape[k][2];
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

std::string thumbnail(const BoardPicture& picture)
{
    const cv::Mat drawing = decoded_drawing(picture);
    cv::Mat small;
    const double scale = static_cast<double>(thumbnail_width) / drawing.cols;
    cv::resize(drawing, small, {}, scale, scale, cv::INTER_AREA);
    return "<img alt=\"\" src=\"data:image/jpeg;base64," + base64(encode(".jpg", small)) + "\">";
}

std::string side_by_side(const Calibrated& c, std::string (*draw)(const Calibrated&, std::size_t))
{
    std::string html = "<div class=\"two\">";
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        html += "<div><h3>Camera " + std::to_string(k) + "</h3>" + draw(c, k) + "</div>";
    return html + "</div>";
}

std::string section(const std::string& title, const std::string& about, const std::string& body)
{
    return "<section><h2>" + title + "</h2><p class=\"about\">" + about + "</p>" + body + "</section>\n";
}

/// Index of the coloured dot.
int light_of(Weight weight)
{
    return weight == Weight::unknown ? 3 : weight == Weight::spoils ? 2 : weight == Weight::worse ? 1 : 0;
}

std::string answers(const std::vector<Finding>& findings)
{
    std::string html = "<table>";
    for (const Finding& finding : findings)
        html += "<tr><td style=\"white-space:nowrap\"><span class=\"dot l" + std::to_string(light_of(finding.weight))
            + "\"></span>" + escaped(question_of(finding)) + "</td><td>" + escaped(finding.text)
            + (finding.advice.empty() ? "" : "<br><span class=\"advice\">" + escaped(finding.advice) + "</span>")
            + "</td></tr>";
    return html + "</table>";
}

std::string cameras_table(const Calibrated& c)
{
    std::string html
        = "<table><tr><th></th><th>fx, fy [px]</th><th>cx, cy [px]</th><th>distortion k1 k2 p1 p2 k3 ...</th></tr>";
    for (std::size_t k = 0; k < c.cameras.size(); ++k) {
        const cv::Matx33d& K = c.cameras[k].K;
        html += "<tr><td>camera " + std::to_string(k) + "</td><td>" + number(K(0, 0), 2) + ", " + number(K(1, 1), 2)
            + "</td><td>" + number(K(0, 2), 2) + ", " + number(K(1, 2), 2) + "</td><td>";
        for (auto d = c.cameras[k].D.begin<double>(); d != c.cameras[k].D.end<double>(); ++d)
            html += number(*d, 5) + " ";
        html += "</td></tr>";
    }
    html += "</table>";
    if (c.is_pair()) html += "<p>Baseline " + number(c.baseline, 3) + " mm.</p>";
    return html;
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
            + escaped(outcome(picture, c.board)) + "</td><td class=\"n\">" + figure(c.fits[k].view_rms[v], 3)
            + "</td><td class=\"n\">" + figure(c.fits[k].view_tilt[v], 0) + "</td>";
    }
    if (c.is_pair()) html += "<td class=\"n\">" + figure(c.pair.view_row[v], 3) + "</td>";
    return html + "</tr>";
}

std::string views_table(const Calibrated& c)
{
    const std::vector<std::size_t> out = outlying_views(c);
    std::string html = "<table><tr><th>view</th>";
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        html += "<th>camera " + std::to_string(k) + "</th><th></th><th>rms [px]</th><th>tilt [&deg;]</th>";
    html += c.is_pair() ? "<th>row error [px]</th></tr>" : "</tr>";
    for (std::size_t v = 0; v < c.views.count(); ++v)
        html += view_row(c, v, std::find(out.begin(), out.end(), v) != out.end());
    return html + "</table>";
}

std::string bars_of(const Calibrated& c)
{
    std::string html = "<div class=\"two\">";
    for (std::size_t k = 0; k < c.cameras.size(); ++k)
        html += "<div><h3>Camera " + std::to_string(k) + ", rms</h3>" + bar_drawing(c, c.fits[k].view_rms) + "</div>";
    if (!c.agreement.error_px.empty())
        html += "<div><h3>Agreement of the two cameras, px</h3>" + bar_drawing(c, c.agreement.error_px) + "</div>";
    if (c.is_pair())
        html += "<div><h3>Row error after rectification, rms</h3>" + bar_drawing(c, c.pair.view_row) + "</div>";
    return html + "</div>";
}

} // namespace

std::string calibration_html(const Calibrated& c, const std::vector<Finding>& findings)
{
    const std::string judged = calibration_verdict(findings);
    std::string head = std::to_string(c.used_count()) + " views, " + std::to_string(c.size.width) + " x "
        + std::to_string(c.size.height) + " px, rms " + number(c.rms, 3) + " px";
    if (c.is_pair())
        head += ", row error " + number(c.pair.row_systematic, 3) + " px, baseline " + number(c.baseline, 2) + " mm";
    std::string html
        = "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>vexo calibration</title>"
          "<meta name=\"viewport\" content=\"width=device-width\"><style>"
        + std::string(style) + "</style></head><body><main>\n<header class=\"" + judged.substr(0, judged.find(' '))
        + "\"><h1>Calibration: " + judged + "</h1><p>" + head + ". Board: " + escaped(describe(c.board))
        + ".</p></header>\n";
    html += section("Is it good?",
        "Every answer with its figures; what to do stands below it where something should be done.", answers(findings));
    html += section("Which view spoils it?",
        "Error of each view with the best pose of the board for that view alone. Red: more than twice the median.",
        bars_of(c));
    html += section("Where were the markers?", "All markers of the used views in the image; red cells have none.",
        side_by_side(c, coverage_drawing));
    html += section("What do the cameras not explain?",
        "Difference between a marker and where the calibration puts it, 100 times enlarged. Red arrows that swirl or "
        "point outwards together show distortion that the model does not follow.",
        side_by_side(c, residual_drawing));
    if (c.is_pair())
        html += section("Is the printed board flat?",
            "The board as the calibrated pair measures it, averaged over all views: height of each marker off the "
            "plane.",
            "<div class=\"two\"><div>" + shape_drawing(c) + "</div></div>");
    html += section(
        "Cameras", "Intrinsics in px; x right, y down, (0, 0) the centre of the top left pixel.", cameras_table(c));
    html += section("Views", "What was recognised, and how well it fits.", views_table(c));
    return html + "</main></body></html>\n";
}

} // namespace vexo
