#include "host/reports/false_colour.h"

#include "base/statistics.h"
#include "base/text.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

const cv::Vec3b nothing(48, 48, 48);

const cv::Scalar paper(255, 255, 255), ink(0, 0, 0);

/// Sizes of letters and margins, in proportion to the picture.
struct Layout {
    explicit Layout(int height)
        : scale(std::clamp(height / 700.0, 0.5, 3.0))
    {
    }
    int px(double units) const { return static_cast<int>(std::lround(units * scale)); }
    int title() const { return px(30); } ///< the line above a picture
    double font() const { return 0.55 * scale; }
    int stroke() const { return std::max(1, px(1.0)); }
    double scale;
};

void write(cv::Mat& picture, const std::string& text, cv::Point at, const Layout& layout)
{
    cv::putText(picture, text, at, cv::FONT_HERSHEY_SIMPLEX, layout.font(), ink, layout.stroke(), cv::LINE_AA);
}

int text_width(const std::string& text, const Layout& layout)
{
    int baseline = 0;
    return cv::getTextSize(text, cv::FONT_HERSHEY_SIMPLEX, layout.font(), layout.stroke(), &baseline).width;
}

/// The picture with a white panel of `panel` px to its right and a title line above.
cv::Mat framed(const cv::Mat& picture, int panel, const std::string& title, const Layout& layout)
{
    const int top = layout.title();
    const int width = std::max(picture.cols + panel, text_width(title, layout) + layout.px(20));
    cv::Mat out(std::max(picture.rows, layout.px(260)) + top, width, CV_8UC3, paper);
    picture.copyTo(out(cv::Rect(0, top, picture.cols, picture.rows)));
    write(out, title, { layout.px(8), layout.px(21) }, layout);
    return out;
}

/// Letters have soft edges: 33 greys in place of 256 leave colours of a palette for the picture.
void round_greys(cv::Mat picture)
{
    static const cv::Mat rounded = [] {
        cv::Mat table(1, 256, CV_8U);
        for (int grey = 0; grey < 256; ++grey)
            table.at<uchar>(0, grey) = static_cast<uchar>(std::min(255, (grey + 4) / 8 * 8));
        return table;
    }();
    cv::LUT(picture, rounded, picture);
}

/// The same of what framed() has put above a picture and to its right.
void round_greys_around(const cv::Mat& picture, cv::Mat& out, const Layout& layout)
{
    round_greys(out.rowRange(0, layout.title()));
    round_greys(out.colRange(picture.cols, out.cols));
}

/// Every fourth shade is that of its neighbour: 192 of them and the greys of letters are within a palette's 256.
cv::Mat fewer_shades(const cv::Mat& ramp)
{
    cv::Mat fewer = ramp.clone();
    for (int i = 0; i < 256; ++i)
        fewer.at<cv::Vec3b>(0, i) = ramp.at<cv::Vec3b>(0, (i * 3 / 4 * 4 + 2) / 3);
    return fewer;
}

/// 1, 2 or 5 times a power of ten, for about six of them.
double tick_distance(double span)
{
    const double raw = span / 6.0;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    const double lead = raw / power;
    return power * (lead <= 1.0 ? 1.0 : lead <= 2.0 ? 2.0 : lead <= 5.0 ? 5.0 : 10.0);
}

/// From blue over white to red, light to dark on both sides. Source of the five colours: Brewer, RdBu, 2003.
cv::Vec3b signed_colour(double level)
{
    static const cv::Vec3d colours[] // BGR
        = { { 97, 48, 5 }, { 195, 147, 67 }, { 255, 255, 255 }, { 77, 96, 214 }, { 31, 0, 103 } };
    const double at = std::clamp(4.0 * level, 0.0, 4.0);
    const int below = std::min(3, static_cast<int>(at));
    return colours[below] + (at - below) * (colours[below + 1] - colours[below]);
}

/// The row of a bar that shows a value at this share of it.
int row_in(const cv::Rect& bar, double share)
{
    return bar.y + static_cast<int>(std::lround((1.0 - share) * (bar.height - 1)));
}

void write_ticks(cv::Mat& picture, const cv::Rect& bar, const Span& span, const Layout& layout)
{
    for (const Tick& tick : ticks_of(span))
        write(picture, tick.text, { bar.x + bar.width + layout.px(10), row_in(bar, tick.at) + layout.px(6) }, layout);
}

void draw_ramp(cv::Mat& picture, const cv::Rect& bar, const Span& span, const cv::Mat& colours, const Layout& layout)
{
    for (int y = 0; y < bar.height; ++y) {
        const int level = 255 - 255 * y / std::max(1, bar.height - 1);
        cv::line(picture, { bar.x, bar.y + y }, { bar.x + bar.width - 1, bar.y + y },
            cv::Scalar(colours.at<cv::Vec3b>(0, level)));
    }
    cv::rectangle(picture, bar, ink, layout.stroke());
    for (const Tick& tick : ticks_of(span)) {
        const int y = row_in(bar, tick.at);
        cv::line(picture, { bar.x + bar.width, y }, { bar.x + bar.width + layout.px(6), y }, ink, layout.stroke());
    }
}

/// Places on the ramp, 0 to 255, rounded; 256: no value.
void levels_of(const float* values, int count, const Span& span, int* levels)
{
    const double low = span.low, length = span.high - span.low;
    for (int x = 0; x < count; ++x) {
        const double value = static_cast<double>(values[x]);
        const double level = std::min(std::max(255.0 * (value - low) / length, 0.0), 255.0); // 0 of a NaN
        levels[x] = value == value ? static_cast<int>(level + 0.5) : 256;
    }
}

} // namespace

cv::Mat colour_table(Ramp ramp)
{
    cv::Mat levels(1, 256, CV_8U), colours(1, 256, CV_8UC3);
    for (int i = 0; i < 256; ++i) {
        levels.at<uchar>(0, i) = static_cast<uchar>(i);
        colours.at<cv::Vec3b>(0, i) = ramp == Ramp::Signed ? signed_colour((i - (i > 127 ? 1 : 0)) / 254.0)
                                                           : cv::Vec3b::all(static_cast<uchar>(i));
    }
    if (ramp == Ramp::Rainbow) cv::applyColorMap(levels, colours, cv::COLORMAP_TURBO);
    return colours;
}

std::vector<Tick> ticks_of(const Span& span)
{
    const double distance = tick_distance(span.high - span.low);
    const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(distance) + 1e-9)));
    std::vector<Tick> ticks;
    for (double k = std::ceil(span.low / distance - 1e-9); k * distance <= span.high + 1e-9 * distance; ++k) {
        const double value = k * distance + 0.0;
        ticks.push_back({ (value - span.low) / (span.high - span.low), number(value, decimals) });
    }
    return ticks;
}

Span shown_span(double low, double high)
{
    if (high - low > 1e-9 * std::max(std::abs(low), std::abs(high))) return { low, high };
    const double middle = std::isfinite(low) ? low : 0.5; // one value, or none at all
    return { middle - 0.5, middle + 0.5 };
}

Span most_of(const cv::Mat& values)
{
    const std::vector<double> ends = quantiles(finite_values(values), { 0.005, 0.995 });
    const double margin = 0.02 * (ends[1] - ends[0]);
    return shown_span(ends[0] - margin, ends[1] + margin);
}

namespace {

cv::Mat coloured_by(const cv::Mat& ramp, const cv::Mat& values, const Span& span)
{
    std::vector<cv::Vec3b> colours(ramp.begin<cv::Vec3b>(), ramp.end<cv::Vec3b>());
    colours.push_back(nothing);
    cv::Mat picture(values.size(), CV_8UC3);
    std::vector<int> levels(static_cast<std::size_t>(values.cols));
    for (int y = 0; y < values.rows; ++y) {
        const float* const row = values.ptr<float>(y);
        levels_of(row, values.cols, span, levels.data());
        cv::Vec3b* const out = picture.ptr<cv::Vec3b>(y);
        for (int x = 0; x < values.cols; ++x)
            out[x] = colours[static_cast<std::size_t>(levels[static_cast<std::size_t>(x)])];
    }
    return picture;
}

} // namespace

cv::Mat coloured(const cv::Mat& values, const Span& span, Ramp kind)
{
    return coloured_by(colour_table(kind), values, span);
}

cv::Mat false_colour(const cv::Mat& values, double low, double high, const std::string& title, Ramp kind)
{
    const Span span = shown_span(low, high);
    const cv::Mat ramp = kind == Ramp::Grey ? colour_table(kind) : fewer_shades(colour_table(kind));
    const cv::Mat picture = coloured_by(ramp, values, span);
    const Layout layout(values.rows);
    cv::Mat out = framed(picture, layout.px(120), title, layout);
    const cv::Rect bar(picture.cols + layout.px(14), layout.px(46), layout.px(22), out.rows - layout.px(64));
    write_ticks(out, bar, span, layout);
    round_greys_around(picture, out, layout);
    draw_ramp(out, bar, span, ramp, layout);
    return out;
}

cv::Mat coloured_labels(const cv::Mat& labels, const std::vector<Label>& legend)
{
    cv::Mat picture(labels.size(), CV_8UC3);
    for (int y = 0; y < labels.rows; ++y)
        for (int x = 0; x < labels.cols; ++x)
            picture.at<cv::Vec3b>(y, x)
                = labels.at<uchar>(y, x) < legend.size() ? legend[labels.at<uchar>(y, x)].colour : nothing;
    return picture;
}

cv::Mat labelled(const cv::Mat& labels, const std::vector<Label>& legend, const std::string& title)
{
    const cv::Mat picture = coloured_labels(labels, legend);
    const Layout layout(labels.rows);
    int widest = 0;
    for (const Label& label : legend)
        widest = std::max(widest, text_width(label.text, layout));
    cv::Mat out = framed(picture, widest + layout.px(60), title, layout);
    std::vector<std::pair<cv::Rect, cv::Vec3b>> boxes;
    for (const Label& label : legend) {
        if (label.text.empty()) continue;
        const auto line = static_cast<double>(boxes.size());
        const cv::Rect box(picture.cols + layout.px(12), layout.px(44.0 + 28.0 * line), layout.px(18), layout.px(18));
        write(out, label.text, { box.x + layout.px(26), box.y + layout.px(14) }, layout);
        boxes.emplace_back(box, label.colour);
    }
    round_greys_around(picture, out, layout);
    for (const auto& [box, colour] : boxes) {
        cv::rectangle(out, box, cv::Scalar(colour), cv::FILLED);
        cv::rectangle(out, box, ink, layout.stroke());
    }
    return out;
}

} // namespace vexo
