#include "host/reports/measurement_pictures.h"

#include "base/parallel.h"
#include "base/pictures.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/clouds/smooth.h"
#include "host/files/ply.h"
#include "host/reports/cause_words.h"
#include "host/reports/false_colour.h"
#include "host/reports/measurement_page.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace vexo {

namespace {

/// Smallest round step with which the largest depth fits into 16 bits.
double depth_step(double largest)
{
    for (int digits = -5; digits < 9; ++digits)
        for (const double lead : { 1.0, 2.0, 5.0 }) {
            const double step = lead * std::pow(10.0, digits);
            if (largest <= 65535.0 * step) return step;
        }
    return 1e9;
}

cv::Mat depth_image(const cv::Mat& depth, double step)
{
    cv::Mat image = cv::Mat::zeros(depth.size(), CV_16U);
    for (int y = 0; y < depth.rows; ++y)
        for (int x = 0; x < depth.cols; ++x)
            if (depth.at<float>(y, x) > 0.0F)
                image.at<ushort>(y, x)
                    = cv::saturate_cast<ushort>(std::lround(static_cast<double>(depth.at<float>(y, x)) / step));
    return image;
}

cv::Mat view_of(const cv::Mat& values, const std::string& title)
{
    const Span span = most_of(values);
    return false_colour(values, span.low, span.high, title);
}

/// The causes that occur, with their shares.
std::vector<Label> counted_legend(const CauseMap& causes, Method method)
{
    std::vector<Label> legend = cause_legend();
    const auto total = static_cast<double>(causes.causes.total()), lit = static_cast<double>(lit_pixels(causes));
    for (std::size_t i = 0; i < legend.size(); ++i) {
        const auto count = static_cast<double>(causes.counts[i]);
        std::string& text = legend[i].text;
        if (count == 0)
            text.clear();
        else if (static_cast<Cause>(i) == Cause::none && method != Method::sgbm)
            text += ": " + percent(count, lit) + " of the lit pixels";
        else
            text += ": " + percent(count, total);
    }
    return legend;
}

/// What the values of cause.png mean.
Json cause_codes(Method method)
{
    Json codes = Json::object();
    for (const Cause cause : causes_of(method))
        codes[std::to_string(static_cast<int>(cause))] = key_of(cause);
    return codes;
}

using Bytes = std::vector<unsigned char>;

/// A file's name and how its bytes are made.
using Making = std::pair<const char*, std::function<Bytes()>>;

Bytes png(const cv::Mat& picture)
{
    return encode(".png", picture, PngEffort::at_once);
}

/// What other commands read.
std::vector<Making> files_to_go_on_with(const Measured& m)
{
    return {
        { "cloud.ply",
            [&m] {
                return make_ply(m.cloud.points, m.texture,
                    "vexo: axes of rectified camera 0, unit " + m.unit.name
                        + (m.precision.smoothed ? std::string(", ") + how_smoothed : ""),
                    m.precision.sigma);
            } },
        { "texture.png", [&m] { return png(m.texture); } },
        { "depth.tiff", [&m] { return encode(".tiff", m.depth); } },
    };
}

/// Pictures, and maps that can be made of the cloud.
std::vector<Making> files_to_look_at(const Capture& capture, const Measured& m, const Json& report, double step)
{
    std::vector<Making> files {
        { "report.html",
            [&] {
                const std::string page = measurement_html(capture, m, report);
                return Bytes(page.begin(), page.end());
            } },
        { "depth_view.png", [&m] { return png(view_of(m.depth, "depth [" + m.unit.name + "]")); } },
        { "disparity_view.png", [&m] { return png(view_of(m.disparity, "disparity [px]")); } },
        { "depth.png", [&m, step] { return png(depth_image(m.depth, step)); } },
        { "texture_view.png",
            [&m] {
                cv::Mat grey;
                m.texture.convertTo(grey, CV_32F);
                return png(false_colour(grey, 0.0, 255.0, "texture [grey levels]", Ramp::Grey));
            } },
        { "valid_view.png",
            [&m] {
                const std::vector<Label> legend = counted_legend(m.causes, m.method());
                return png(labelled(m.causes.causes, legend, "which pixels were measured, and why not"));
            } },
        { "disparity.tiff", [&m] { return encode(".tiff", m.disparity); } },
        { "cause.png", [&m] { return png(m.causes.causes); } },
        { "valid.png", [&m] { return png(m.depth == m.depth); } },
    };
    if (!m.precision.sigma.empty())
        files.emplace_back("sigma.tiff", [&m] { return encode(".tiff", m.precision.sigma); });
    return files;
}

} // namespace

void add_files(OutputFolder& out, const Capture& capture, const Measured& m, Json& report, ResultFiles which)
{
    double nearest = 0.0, farthest = 0.0;
    cv::minMaxLoc(m.depth, &nearest, &farthest, nullptr, nullptr, m.depth == m.depth);
    const double step = depth_step(farthest);
    std::vector<Making> files; // the longest first: they are made on all threads
    if (which == ResultFiles::all) {
        report["depth_png"] = { { "unit", step }, { "invalid", 0 } };
        report["cause_png"] = cause_codes(m.method());
        files = files_to_look_at(capture, m, report, step);
    }
    for (Making& making : files_to_go_on_with(m))
        files.push_back(std::move(making));
    std::vector<Bytes> bytes(files.size());
    in_parallel(files.size(), [&](std::size_t i) { bytes[i] = files[i].second(); });
    for (std::size_t i = 0; i < files.size(); ++i)
        out.add(files[i].first, std::move(bytes[i]));
    out.add("report.json", json_text(report));
}

} // namespace vexo
