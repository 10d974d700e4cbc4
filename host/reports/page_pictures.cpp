#include "host/reports/page_pictures.h"

#include "base/parallel.h"
#include "base/pictures.h"
#include "base/text.h"
#include "host/reports/cause_words.h"
#include "host/reports/html.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <functional>

namespace vexo {

namespace {

struct Picture {
    std::string title, about; ///< HTML
    cv::Mat image;
    std::string scale;   ///< HTML
    bool labels = false; ///< its colours are names: neither mixed nor blurred
    int side = 800;      ///< px, the longer one in the page
    cv::Size whole {};   ///< before the image was reduced; empty: it was not
};

std::string hex(const cv::Vec3b& colour)
{
    char text[8];
    std::snprintf(text, sizeof text, "#%02x%02x%02x", colour[2], colour[1], colour[0]);
    return text;
}

/// With the longer side of `side` px at most.
cv::Mat reduced(const cv::Mat& image, int side, bool labels)
{
    const double scale = side / static_cast<double>(std::max(image.cols, image.rows));
    if (scale >= 1.0) return image;
    const auto length = [scale](int whole) { return std::max(1, static_cast<int>(std::lround(scale * whole))); };
    cv::Mat small;
    cv::resize(
        image, small, { length(image.cols), length(image.rows) }, 0, 0, labels ? cv::INTER_NEAREST : cv::INTER_AREA);
    return small;
}

/// A picture takes no more of the page than this, noisy as it may be: then the page stays below 8 MB.
constexpr std::size_t most_bytes = 300000;

constexpr int jpeg_quality = 82;

constexpr int side_of_frames = 640; ///< px; the result is what is looked at closely

/// As it stands in the page, and its size there.
std::string image_html(const Picture& picture)
{
    const cv::Size own = picture.whole.empty() ? picture.image.size() : picture.whole;
    for (int side = picture.side;; side = side * 3 / 4) {
        const cv::Mat small = reduced(picture.image, side, picture.labels);
        const std::vector<unsigned char> bytes
            = picture.labels ? encode(".png", small, PngEffort::few_colours) : encode_jpeg(small, jpeg_quality);
        if (bytes.size() > most_bytes && side > 200) continue;
        const std::string shown = size_text(small.cols, small.rows), whole = size_text(own.width, own.height);
        return picture_html(bytes, picture.labels ? "image/png" : "image/jpeg", picture.title) + picture.scale
            + "<figcaption><strong>" + picture.title + ".</strong> " + picture.about
            + (shown == whole ? "" : " Shown with " + shown + " of " + whole + " px.") + "</figcaption>";
    }
}

/// They are made on all threads.
std::string pictures_html(const std::vector<std::function<Picture()>>& pictures)
{
    std::vector<std::string> parts(pictures.size());
    in_parallel(pictures.size(), [&](std::size_t i) { parts[i] = image_html(pictures[i]()); });
    std::string html = "<div class=\"pictures\">\n";
    for (const std::string& part : parts)
        html += "<figure>" + part + "</figure>\n";
    return html + "</div>\n";
}

/// Reduced before it is coloured: means of values that are there everywhere, samples of others.
Picture map_picture(const std::string& title, const std::string& about, const cv::Mat& values, const Span& span,
    const std::string& what, bool everywhere = false)
{
    Picture picture { title, about, {}, scale_html(span, Ramp::Rainbow, what) };
    if (everywhere) picture.side = side_of_frames;
    picture.image = coloured(reduced(values, picture.side, !everywhere), span, Ramp::Rainbow);
    picture.whole = values.size();
    return picture;
}

Picture cause_picture(const Measured& m)
{
    return { "Causes", "Why pixels were not measured: the first test that each failed.",
        coloured_labels(m.causes.causes, cause_legend()), legend_html(cause_labels(m.causes)), true };
}

/// Dots on a faint picture.
Picture row_picture(const Measured& m)
{
    double most = 0.5; // px
    for (const RowShift& shift : m.rows.shifts)
        most = std::max(most, std::abs(shift.px - m.rows.median));
    const Span span { -std::min(most, 2.0), std::min(most, 2.0) };
    cv::Mat faint;
    m.texture.convertTo(faint, CV_8U, 0.35, 150.0);
    cv::cvtColor(faint, faint, cv::COLOR_GRAY2BGR);
    const int radius = std::max(2, static_cast<int>(std::sqrt(static_cast<double>(faint.total())) / 180.0));
    for (const RowShift& shift : m.rows.shifts) {
        const cv::Mat value(1, 1, CV_32F, cv::Scalar(shift.px));
        const cv::Vec3b colour = coloured(value, span, Ramp::Signed).at<cv::Vec3b>(0, 0);
        cv::circle(faint, shift.at, radius + 1, cv::Scalar::all(70), cv::FILLED, cv::LINE_AA);
        cv::circle(faint, shift.at, radius, cv::Scalar(colour), cv::FILLED, cv::LINE_AA);
    }
    return { "Row error",
        "By how many rows windows with texture are lower in camera 1 than rectification promises. Single windows "
        "differ; "
        "a run over the picture shows a camera that moved.",
        faint, scale_html(span, Ramp::Signed, "row error [px]") };
}

/// Amplitude of the fringes, of the weakest period; CV_32F.
cv::Mat modulation(const std::vector<cv::Mat>& frames, const std::vector<std::size_t>& sets)
{
    cv::Mat weakest;
    for (const std::size_t first : sets) {
        cv::Mat sine, cosine, amplitude;
        cv::subtract(frames[first + 1], frames[first + 3], sine, cv::noArray(), CV_32F);
        cv::subtract(frames[first + 2], frames[first], cosine, cv::noArray(), CV_32F);
        cv::magnitude(sine, cosine, amplitude);
        weakest = weakest.empty() ? amplitude : cv::Mat(cv::min(weakest, amplitude));
    }
    return 0.5 * weakest;
}

} // namespace

Spans spans_of(const Measured& m)
{
    return { most_of(m.depth), m.precision.sigma.empty() ? Span {} : most_of(m.precision.sigma) };
}

std::string swatch_html(const cv::Vec3b& colour)
{
    return "<span class=\"swatch\" style=\"background:" + hex(colour) + "\"></span>";
}

std::string scale_html(const Span& span, Ramp ramp, const std::string& title)
{
    constexpr int stops = 32;
    const cv::Mat colours = colour_table(ramp);
    std::string gradient;
    for (int i = 0; i <= stops; ++i)
        gradient += (i == 0 ? "" : ",") + hex(colours.at<cv::Vec3b>(0, i * 255 / stops));
    std::string html = "<div class=\"scale\"><div class=\"hint\">" + title
        + "</div><div class=\"bar\" style=\"background:linear-gradient(to right," + gradient
        + ")\"></div><div class=\"ticks\">";
    for (const Tick& tick : ticks_of(span))
        html += "<span style=\"left:" + number(100.0 * tick.at, 2) + "%\">" + tick.text + "</span>";
    return html + "</div></div>\n";
}

std::string legend_html(const std::vector<Label>& labels)
{
    std::string html = "<ul class=\"legend\">";
    for (const Label& label : labels)
        if (!label.text.empty()) html += "<li>" + swatch_html(label.colour) + escaped(label.text) + "</li>";
    return html + "</ul>\n";
}

std::vector<Label> cause_labels(const CauseMap& causes)
{
    std::vector<Label> labels = cause_legend();
    for (std::size_t i = 0; i < labels.size(); ++i)
        if (causes.counts[i] == 0) labels[i].text.clear();
    return labels;
}

std::string result_pictures_html(const Measured& m, const Spans& spans)
{
    std::vector<std::function<Picture()>> pictures;
    pictures.emplace_back([&m] {
        return Picture { "Grey", "The rectified picture of camera 0, lit.", m.texture, "" };
    });
    pictures.emplace_back([&m] { return cause_picture(m); });
    if (m.cloud.count > 0)
        pictures.emplace_back([&m, &spans] {
            return map_picture("Depth", "Along the optical axis of rectified camera 0; dark: nothing was measured.",
                m.depth, spans.depth, "depth [" + m.unit.name + "]");
        });
    if (m.cloud.count > 0 && !m.precision.sigma.empty())
        pictures.emplace_back([&m, &spans] {
            return map_picture("Sigma",
                "Standard deviation of each depth by the noise of the frames alone; what the calibration is off by is "
                "not in it.",
                m.precision.sigma, spans.sigma, "sigma [" + m.unit.name + "]");
        });
    if (!m.rows.shifts.empty()) pictures.emplace_back([&m] { return row_picture(m); });
    return pictures_html(pictures);
}

std::string capture_pictures_html(const Capture& capture)
{
    if (capture.files.decoded) return "";
    const std::vector<std::size_t>& sets = phase_sets(capture.method());
    std::vector<std::function<Picture()>> pictures;
    for (std::size_t camera = 0; camera < 2; ++camera) {
        const std::vector<cv::Mat>& frames = capture.frames.frames[camera];
        const std::string which = "camera " + std::to_string(camera);
        pictures.emplace_back([&frames, &sets, which] {
            return Picture { sets.empty() ? "Picture of " + which : "Fringes of " + which, "As recorded.",
                frames[sets.empty() ? 0 : sets[0]], "", false, side_of_frames };
        });
        if (sets.empty()) continue;
        pictures.emplace_back([&frames, &sets, which] {
            const cv::Mat amplitude = modulation(frames, sets);
            return map_picture("Strength of the fringes, " + which,
                "Their amplitude; of several periods that of the weakest.", amplitude, most_of(amplitude),
                "amplitude [grey levels]", true);
        });
    }
    return pictures_html(pictures);
}

} // namespace vexo
