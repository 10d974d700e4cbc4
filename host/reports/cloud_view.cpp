#include "host/reports/cloud_view.h"

#include "base/text.h"
#include "host/reports/cause_words.h"
#include "host/reports/false_colour.h"
#include "host/reports/page/parts.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>

namespace vexo {

namespace {

using Bytes = std::vector<unsigned char>;

/// Of points that were measured and then taken out.
constexpr std::array<Cause, 4> cleaned_away { Cause::outlier, Cause::edge, Cause::speckle, Cause::texture };

bool is_cleaned(Cause cause)
{
    return std::find(cleaned_away.begin(), cleaned_away.end(), cause) != cleaned_away.end();
}

/// The disparities of all points that there are, and of those that were cleaned away.
cv::Mat with_cleaned(const Measured& m)
{
    cv::Mat shown = m.disparity.clone();
    for (int y = 0; y < shown.rows; ++y)
        for (int x = 0; x < shown.cols; ++x)
            if (is_cleaned(static_cast<Cause>(m.causes.causes.at<uchar>(y, x))))
                shown.at<float>(y, x) = m.uncleaned.at<float>(y, x);
    return shown;
}

/// px, from a point to the cause that it has the colour of.
constexpr int reach = 4;

/// What a point has the colour of where causes are shown: its own cause if it was cleaned away, else that of the
/// nearest pixel without a point, if it is near.
Cause cause_beside(const cv::Mat& causes, int y, int x)
{
    const auto own = static_cast<Cause>(causes.at<uchar>(y, x));
    if (own != Cause::none) return own;
    int nearest = reach * reach + 1;
    Cause cause = Cause::none;
    for (int v = std::max(0, y - reach); v <= std::min(causes.rows - 1, y + reach); ++v)
        for (int u = std::max(0, x - reach); u <= std::min(causes.cols - 1, x + reach); ++u) {
            const auto other = static_cast<Cause>(causes.at<uchar>(v, u));
            const int distance = (v - y) * (v - y) + (u - x) * (u - x);
            if (other == Cause::none || is_cleaned(other) || distance >= nearest) continue;
            nearest = distance;
            cause = other;
        }
    return cause;
}

/// What the page has of the points, row by row of the grid.
struct PackedPoints {
    Bytes grid;      ///< a bit for each place of the grid, the lowest first: whether there is a point
    Bytes disparity; ///< 16 bits, low byte first: 0 is `low`, 65535 is `high`
    Bytes grey, cause;
    Bytes sigma; ///< 0 to 254 of its scale, 255: none
    double low = 0.0, high = 0.0;
    int points = 0, cleaned = 0;
};

unsigned char sigma_level(float sigma, const Span& span)
{
    constexpr double most = 254.0;
    if (std::isnan(sigma)) return 255;
    const double part = (static_cast<double>(sigma) - span.low) / (span.high - span.low);
    return static_cast<unsigned char>(std::lround(most * std::clamp(part, 0.0, 1.0)));
}

class Packing {
public:
    Packing(const Measured& measured, const cv::Mat& disparity, const ViewGrid& grid, const Span& sigma)
        : m(measured)
        , _disparity(disparity)
        , _grid(grid)
        , _sigma_span(sigma)
    {
        cv::dilate(m.causes.causes, _near_a_cause, cv::Mat::ones(2 * reach + 1, 2 * reach + 1, CV_8U));
        cv::minMaxLoc(disparity, &_packed.low, &_packed.high, nullptr, nullptr, disparity == disparity);
    }

    PackedPoints pack()
    {
        const auto along = [this](int length) { return (length + _grid.step - 1) / _grid.step; };
        const auto places
            = static_cast<std::size_t>(along(_disparity.rows)) * static_cast<std::size_t>(along(_disparity.cols));
        _packed.grid.assign((places + 7) / 8, 0);
        std::size_t place = 0;
        for (int y = 0; y < _disparity.rows; y += _grid.step)
            for (int x = 0; x < _disparity.cols; x += _grid.step, ++place) {
                if (std::isnan(_disparity.at<float>(y, x)) || !_grid.holds(y, x)) continue;
                _packed.grid[place / 8] = static_cast<unsigned char>(_packed.grid[place / 8] | 1U << place % 8);
                _add(y, x);
            }
        return std::move(_packed);
    }

private:
    void _add(int y, int x)
    {
        const double span = std::max(_packed.high - _packed.low, 1e-9);
        const auto level = static_cast<unsigned>(
            std::lround(65535.0 * (static_cast<double>(_disparity.at<float>(y, x)) - _packed.low) / span));
        _packed.disparity.push_back(static_cast<unsigned char>(level & 255U));
        _packed.disparity.push_back(static_cast<unsigned char>(level >> 8U & 255U));
        _packed.grey.push_back(m.texture.at<uchar>(y, x));
        const Cause cause = _near_a_cause.at<uchar>(y, x) != 0 ? cause_beside(m.causes.causes, y, x) : Cause::none;
        _packed.cause.push_back(static_cast<unsigned char>(cause));
        if (!m.precision.sigma.empty())
            _packed.sigma.push_back(sigma_level(m.precision.sigma.at<float>(y, x), _sigma_span));
        ++_packed.points;
        _packed.cleaned += is_cleaned(cause) ? 1 : 0;
    }

    const Measured& m;
    const cv::Mat& _disparity;
    ViewGrid _grid;
    Span _sigma_span;
    cv::Mat _near_a_cause; ///< not 0 where there is one within reach
    PackedPoints _packed;
};

std::string points_text(long long count)
{
    return grouped(count) + " points";
}

/// BGR to RGB, byte by byte.
Bytes rgb_of(const cv::Mat& colours)
{
    Bytes bytes;
    for (auto colour = colours.begin<cv::Vec3b>(); colour != colours.end<cv::Vec3b>(); ++colour)
        bytes.insert(bytes.end(), { (*colour)[2], (*colour)[1], (*colour)[0] });
    return bytes;
}

Json data_of(const Measured& m, const ViewGrid& grid, const PackedPoints& p, const Span& depths)
{
    Json data { { "said", points_text(m.cloud.count) }, { "unit", m.unit.name }, { "points", p.points },
        { "step", grid.step }, { "half", grid.half }, { "columns", (m.disparity.cols + grid.step - 1) / grid.step },
        { "rows", (m.disparity.rows + grid.step - 1) / grid.step }, { "f", m.geometry.f }, { "cx", m.geometry.cx },
        { "cy", m.geometry.cy }, { "slope", m.geometry.slope }, { "offset", m.geometry.offset }, { "low", p.low },
        { "high", p.high }, { "depths", { depths.low, depths.high } }, { "removed", cleaned_away },
        { "ramp", base64(rgb_of(colour_table(Ramp::Rainbow))) }, { "grid", base64(p.grid) },
        { "disparity", base64(p.disparity) }, { "grey", base64(p.grey) }, { "cause", base64(p.cause) } };
    for (const Label& label : cause_legend())
        data["colours"].push_back({ label.colour[2], label.colour[1], label.colour[0] });
    if (!p.sigma.empty()) data["sigma"] = base64(p.sigma);
    return data;
}

std::string choice_html(const char* value, const char* words, bool chosen)
{
    return "<label><input type=\"radio\" name=\"colour\" value=\"" + std::string(value) + "\""
        + (chosen ? " checked" : "") + "><span>" + words + "</span></label>";
}

std::string controls_html(bool has_sigma)
{
    return "<div class=\"controls\"><fieldset><legend>Colour</legend>" + choice_html("grey", "Grey", false)
        + choice_html("depth", "Depth", true) + (has_sigma ? choice_html("sigma", "Sigma", false) : "")
        + choice_html("cause", "Cause", false)
        + "</fieldset><fieldset><legend>Seen from</legend>"
          "<button type=\"button\" data-azimuth=\"0\" data-elevation=\"0\">Camera</button>"
          "<button type=\"button\" data-azimuth=\"-1.35\" data-elevation=\"0\">Left</button>"
          "<button type=\"button\" data-azimuth=\"1.35\" data-elevation=\"0\">Right</button>"
          "<button type=\"button\" data-azimuth=\"0\" data-elevation=\"1.3\">Above</button>"
          "<button type=\"button\" id=\"whole\">Whole</button></fieldset>"
          "<label><input type=\"checkbox\" id=\"light\" checked><span>Light</span></label></div>\n";
}

const char* const controls_hint
    = "<p class=\"hint\">Drag turns the cloud, the wheel or two fingers zoom, shift and drag move it, a double click "
      "shows the whole again; so do the arrow keys, + and -, and Home.</p>\n";

std::string scales_html(const Measured& m, const Spans& spans)
{
    const auto scale = [](const char* colour, const std::string& body) {
        return "<div data-colour=\"" + std::string(colour) + "\"" + (std::string(colour) == "depth" ? "" : " hidden")
            + ">" + body + "</div>\n";
    };
    std::string html = scale("grey", scale_html({ 0.0, 255.0 }, Ramp::Grey, "grey level of camera 0"))
        + scale("depth", scale_html(spans.depth, Ramp::Rainbow, "depth [" + m.unit.name + "]"));
    if (!m.precision.sigma.empty())
        html += scale("sigma",
            scale_html(spans.sigma, Ramp::Rainbow, "sigma [" + m.unit.name + "], of the noise alone; grey: not known"));
    return html
        + scale("cause",
            legend_html(cause_labels(m.causes))
                + "<p class=\"hint\">Points beside a hole have the colour of why nothing was measured there. Points "
                  "that "
                  "were cleaned away are shown in this colouring only.</p>");
}

/// How the points that are shown were taken; HTML.
std::string taken_text(const Measured& m, const ViewGrid& grid, const PackedPoints& p)
{
    const std::string all = grouped_html(m.cloud.count) + " points";
    if (grid.step == 1 && !grid.half) return "All " + all + " are shown.";
    const std::string step = grid.step == 2 ? "2nd" : grid.step == 3 ? "3rd" : std::to_string(grid.step) + "th";
    return "Shown are " + grouped_html(p.points - p.cleaned) + " of the " + all
        + (grid.step == 1 ? "" : ", those of every " + step + " pixel of every " + step + " row")
        + (grid.half ? ", every second one as on a chessboard" : "") + ": a page holds "
        + grouped_html(most_points_shown) + " at most, cloud.ply all of them.";
}

} // namespace

ViewGrid choose_grid(const cv::Mat& disparity, int most)
{
    constexpr double most_places = 2e6; // of the grid, a bit each in the page
    for (ViewGrid grid {
             std::max(1, static_cast<int>(std::ceil(std::sqrt(static_cast<double>(disparity.total()) / most_places)))),
             false };
         ; grid.half ? ++grid.step, grid.half = false : grid.half = true) {
        int count = 0;
        for (int y = 0; y < disparity.rows; y += grid.step)
            for (int x = 0; x < disparity.cols; x += grid.step)
                count += grid.holds(y, x) && !std::isnan(disparity.at<float>(y, x)) ? 1 : 0;
        if (count <= most) return grid;
    }
}

std::vector<std::string> cloud_scripts()
{
    if (three_script.empty()) return {};
    return { std::string(three_script), std::string(view_script) };
}

std::optional<Section> cloud_section(const Measured& m, const Spans& spans)
{
    if (m.cloud.count == 0) return std::nullopt;
    if (three_script.empty())
        return Section { "The cloud", "",
            "<p>This program was built without three.js (Debian's libjs-three), so this page has pictures only; "
            "cloud.ply "
            "holds the points.</p>\n" };
    const cv::Mat disparity = with_cleaned(m);
    const ViewGrid grid = choose_grid(disparity);
    const PackedPoints packed = Packing(m, disparity, grid, spans.sigma).pack();
    return Section { "The cloud", taken_text(m, grid, packed),
        "<div class=\"view\" id=\"view\" tabindex=\"0\" role=\"img\" aria-label=\"The measured points in 3D\">"
        "<div class=\"ruler\" id=\"ruler\" hidden></div><p class=\"missing\" id=\"missing\" hidden>This browser has no "
        "WebGL, so the points cannot be shown; the pictures below show the same measurement.</p><noscript><p "
        "class=\"missing\">This browser runs no scripts, so the points cannot be shown; the pictures below show the "
        "same measurement.</p></noscript></div>\n"
            + controls_html(!packed.sigma.empty()) + scales_html(m, spans) + controls_hint
            + "<script type=\"application/json\" id=\"cloud\">" + script_data(data_of(m, grid, packed, spans.depth))
            + "</script>\n" };
}

} // namespace vexo
