#include "measurement.h"

#include "common.h"
#include "pictures.h"
#include "ply.h"

#include "vexo/version.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>

namespace vexo::app {

namespace {

/// Range of disparities in words, with the depths that belong to it.
std::string range_text(const Measurement& m, double low, double high)
{
    const double a = m.geometry.depth(low), b = m.geometry.depth(high);
    // beyond infinity the depth is negative
    const auto text = [](double depth) { return depth > 0.0 && depth < 1e7 ? number(depth, 0) : "infinity"; };
    const bool rising = a > 0.0 && (b < 0.0 || a < b);
    return number(low, 0) + " ... " + number(high, 0) + " (depth " + text(rising ? a : b) + " ... "
        + text(rising ? b : a) + ")";
}

/// Without limits, from the 1 % to the 99 % quantile.
std::string measured_range(const Measurement& m)
{
    const std::vector<double> ends = quantiles(m.any_disparity, { 0.01, 0.99 });
    return range_text(m, ends[0], ends[1]);
}

std::string limits_text(const Measurement& m)
{
    const auto [low, high] = disparity_limits(m.record);
    return "[" + number(low, 0) + ", " + number(high, 0) + "]";
}

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
    const std::vector<double> ends = quantiles(finite_values(values), { 0.005, 0.995 });
    const double low = ends[0], high = ends[1];
    return false_colour(values, low - 0.02 * (high - low), high + 0.02 * (high - low), title);
}

std::vector<Label> counted_legend(const CauseMap& causes, Method method)
{
    std::vector<Label> legend = cause_legend();
    const std::vector<Cause> own = causes_of(method);
    for (std::size_t i = 0; i < legend.size(); ++i) {
        const auto cause = static_cast<Cause>(i);
        if (std::find(own.begin(), own.end(), cause) == own.end())
            legend[i].text.clear(); // not in the picture
        else
            legend[i].text
                += ": " + percent(static_cast<double>(causes[cause]), static_cast<double>(causes.causes.total()));
    }
    return legend;
}

Json describe_fringes(const Measurement& m, std::size_t camera)
{
    const std::vector<FringeFigures>& figures = m.fringes[camera];
    if (m.method() == Method::gray_phase) return describe(figures[0]);
    Json periods = Json::array();
    for (std::size_t f = 0; f < figures.size(); ++f) {
        periods.push_back(describe(figures[f]));
        periods.back()["period"] = m.periods()[f];
    }
    return { { "periods", periods }, { "expected_loss", expected_loss(figures, m.periods()) } };
}

void print_fringes(const GlobalOptions& global, const Measurement& m)
{
    if (m.method() == Method::gray_phase) {
        const auto& param = std::get<GrayPhaseMatchingParam>(m.record);
        say(global, "fringes      " + m.runs.reason);
        say(global,
            "unwrapping   anchor " + std::to_string(param.anchor_length) + (m.runs.anchor_given ? "" : " (chosen)")
                + ", reject " + std::to_string(param.reject_length) + (m.runs.reject_given ? "" : " (chosen)"));
    }
    if (m.method() != Method::multi_phase) return;
    std::string periods;
    for (const int period : m.periods())
        periods += (periods.empty() ? "" : ", ") + std::to_string(period);
    say(global,
        "fringes      periods of " + periods + " projector px; phases may differ by "
            + number(std::get<MultiPhaseMatchingParam>(m.record).max_phase_diff, 2) + " px");
    for (std::size_t camera = 0; camera < 2 && !is_decoded(m.record); ++camera) {
        const FringeFigures& worst = *std::min_element(m.fringes[camera].begin(), m.fringes[camera].end(),
            [](const auto& a, const auto& b) { return a.modulation < b.modulation; });
        const double loss = expected_loss(m.fringes[camera], m.periods());
        say(global,
            "  camera " + std::to_string(camera) + "   modulation " + number(worst.modulation, 1) + ", noise "
                + number(worst.grey_noise, 2) + " grey levels: " + percent(loss, 1.0)
                + " of the fringe numbers lost to noise");
    }
}

/// What the noise does to the numbers of multi-period fringes, when it does too much.
void warn_of_noise(const GlobalOptions& global, const Measurement& m)
{
    constexpr double much = 0.01, wrong_from_rad = 0.1, pi = 3.14159265358979323846;
    for (std::size_t camera = 0; camera < 2 && m.method() == Method::multi_phase; ++camera) {
        double noise = 0.0;
        for (const FringeFigures& figures : m.fringes[camera])
            noise = std::max(noise, 2.0 * pi * figures.phase_noise);
        const double loss = expected_loss(m.fringes[camera], m.periods());
        if (loss <= much && noise <= wrong_from_rad) continue;
        say(global,
            "warning      camera " + std::to_string(camera) + ": phase noise " + number(noise, 3) + " rad loses up to "
                + percent(loss, 1.0) + " of the fringe numbers"
                + (noise > wrong_from_rad ? ", and above 0.1 rad wrong numbers pass for right ones" : "")
                + "; use more light, or shorter periods such as 9,10,11");
    }
}

void print_causes(const GlobalOptions& global, const Measurement& m, double total)
{
    say(global, "not measured");
    for (const Cause cause : causes_of(m.method())) {
        if (cause == Cause::none) continue;
        std::string words = words_of(cause), count = grouped(m.causes[cause]);
        words.resize(std::max<std::size_t>(words.size(), 38), ' ');
        count.insert(0, 10 - std::min<std::size_t>(10, count.size()), ' ');
        say(global, "  " + words + count + "  " + percent(static_cast<double>(m.causes[cause]), total));
    }
}

} // namespace

std::vector<int> Measurement::periods() const
{
    const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record);
    return multi ? std::vector<int>(multi->periods, multi->periods + multi->nperiods) : std::vector<int>();
}

std::string why_nothing(const Measurement& m)
{
    if (m.causes[Cause::disparity] > 0)
        return "every disparity lies outside " + limits_text(m) + ": measured range " + measured_range(m)
            + "; pass --disparity or --depth";
    if (m.method() == Method::sgbm)
        return "no pixel of the two pictures matches at disparities " + limits_text(m)
            + "; pass --disparity or --depth, and check that cam0 and cam1 are not swapped";
    const auto first = m.causes.counts.begin() + static_cast<std::ptrdiff_t>(Cause::contrast);
    const auto worst = static_cast<Cause>(std::max_element(first, m.causes.counts.end()) - m.causes.counts.begin());
    std::string text = "no point was measured; most pixels: " + std::string(words_of(worst));
    if (worst == Cause::contrast)
        text += "; check the exposure and the order of the frames (dark, lit, patterns), or lower --min-contrast";
    if (worst == Cause::modulation) text += "; check the fringe frames, or lower --min-modulation";
    if (worst == Cause::unwrapping && m.method() == Method::multi_phase)
        text += "; check that the fringes have these --periods";
    else if (worst == Cause::no_partner || worst == Cause::unwrapping || worst == Cause::phase_difference)
        text += "; check that cam0 and cam1 are not swapped and that the calibration belongs to these cameras";
    return text;
}

Json make_report(const MeasureOptions& o, const Measurement& m)
{
    Json report;
    report["program"] = "vexo " VEXO_VERSION_STRING;
    report["method"] = name_of(m.method());
    report["recognised_by"] = m.choice.reason;
    report["input"] = { { "calib", o.calib }, { "cam0", o.cam0 }, { "cam1", o.cam1 }, { "decoded", o.decoded } };
    report["camera"] = describe(o.camera, *m.camera, m.geometry);
    if (o.calib.size() < 3) {
        const cv::Size output(m.texture.size());
        report["camera"]["rectifying_rotation"]
            = to_json(rectify(read_cameras(o.calib), m.frames.size, o.camera.alpha, o.camera.flags, output).rotation0);
    }
    report["parameters"] = describe(m.record);
    report["parameters"]["min_modulation"] = o.min_modulation;
    report["parameters"]["interpolate"] = o.interpolate;
    if (!m.fringes[0].empty())
        report["fringes"] = { { "cam0", describe_fringes(m, 0) }, { "cam1", describe_fringes(m, 1) } };
    if (m.method() == Method::gray_phase)
        report["run_lengths"] = { { "anchor_chosen", !m.runs.anchor_given }, { "reject_chosen", !m.runs.reject_given },
            { "reason", m.runs.reason } };
    const auto total = static_cast<double>(m.depth.total());
    report["pixels"] = { { "total", m.depth.total() }, { "measured", m.cloud.count },
        { "share", m.cloud.count / total }, { "not_measured", describe(m.causes, m.method()) } };
    std::array<Json, 3> spread;
    in_parallel(spread.size(), [&](std::size_t i) {
        spread[i] = quantiles(i == 2 ? m.any_disparity : finite_values(i == 0 ? m.depth : m.disparity));
    });
    report["depth"] = spread[0];
    report["disparity"] = spread[1];
    const auto [low, high] = disparity_limits(m.record);
    report["disparity"]["accepted"] = { { "low", low }, { "high", high }, { "from", m.range_origin } };
    if (m.method() != Method::sgbm) {
        report["disparity"]["q01_without_limits"] = spread[2]["q01"];
        report["disparity"]["q99_without_limits"] = spread[2]["q99"];
    }
    report["seconds"] = describe(m.times);
    report["seconds"]["read"] = m.read_seconds;
    report["seconds"]["first_pass"] = m.first_pass_seconds;
    report["seconds"]["causes"] = m.causes_seconds;
    return report;
}

void add_files(OutputFolder& out, const Measurement& m, Json& report)
{
    double nearest = 0.0, farthest = 0.0;
    cv::minMaxLoc(m.depth, &nearest, &farthest, nullptr, nullptr, m.depth == m.depth);
    const double step = depth_step(farthest);
    report["depth_png"] = { { "unit", step }, { "invalid", 0 } };

    using Bytes = std::vector<unsigned char>;
    const auto png = [](const cv::Mat& picture) { return encode(".png", picture); };
    const auto texture_view = [&] {
        cv::Mat grey;
        m.texture.convertTo(grey, CV_32F);
        return png(false_colour(grey, 0.0, 255.0, "texture [grey levels]"));
    };
    const auto valid_view = [&] {
        const std::vector<Label> legend = counted_legend(m.causes, m.method());
        return png(labelled(m.causes.causes, legend, "which pixels were measured, and why not"));
    };
    // The longest first: they are made on all threads.
    const std::vector<std::pair<const char*, std::function<Bytes()>>> files {
        { "cloud.ply",
            [&] {
                return make_ply(m.cloud.points, m.texture, "vexo: axes of rectified camera 0, unit of the calibration");
            } },
        { "depth_view.png", [&] { return png(view_of(m.depth, "depth [mm]")); } },
        { "disparity_view.png", [&] { return png(view_of(m.disparity, "disparity [px]")); } },
        { "depth.png", [&] { return png(depth_image(m.depth, step)); } },
        { "texture_view.png", texture_view },
        { "valid_view.png", valid_view },
        { "texture.png", [&] { return png(m.texture); } },
        { "disparity.tiff", [&] { return encode(".tiff", m.disparity); } },
        { "depth.tiff", [&] { return encode(".tiff", m.depth); } },
        { "valid.png", [&] { return png(m.depth == m.depth); } },
    };
    std::vector<Bytes> bytes(files.size());
    in_parallel(files.size(), [&](std::size_t i) { bytes[i] = files[i].second(); });
    for (std::size_t i = 0; i < files.size(); ++i)
        out.add(files[i].first, std::move(bytes[i]));
    out.add("report.json", json_text(report));
}

void print_summary(const GlobalOptions& global, const MeasureOptions& o, const Measurement& m, const Json& report)
{
    const auto total = static_cast<double>(m.depth.total());
    say(global, "method       " + std::string(name_of(m.method())) + " (by " + m.choice.reason + ")");
    say(global,
        "rig          baseline " + number(m.camera->get_baseline_length(), 2) + ", rectified f "
            + number(m.geometry.f, 1) + " px");
    print_fringes(global, m);
    const auto [low, high] = disparity_limits(m.record);
    say(global, "range        disparity " + range_text(m, low, high) + ", " + m.range_origin);
    say(global,
        "measured     " + grouped(m.cloud.count) + " of " + grouped(static_cast<long long>(total)) + " pixels ("
            + percent(m.cloud.count, total) + ")");
    print_causes(global, m, total);
    for (const char* what : { "disparity", "depth" }) {
        const Json& q = report[what];
        say(global,
            std::string(what) + (std::string(what) == "depth" ? "        " : "    ") + number(q["q01"].get<double>(), 2)
                + " / " + number(q["q50"].get<double>(), 2) + " / " + number(q["q99"].get<double>(), 2)
                + " (1 / 50 / 99 %)");
    }
    const auto lost = static_cast<double>(m.causes[Cause::disparity]);
    if (lost > 0.01 * (m.cloud.count + lost))
        say(global,
            "note         " + percent(lost, m.cloud.count + lost) + " of the matches lie outside " + limits_text(m)
                + "; without limits they span " + measured_range(m) + "; see --disparity and --depth");
    if (static_cast<double>(m.weak.count) > 0.01 * m.cloud.count)
        say(global,
            "note         " + grouped(m.weak.count) + " pixels are left out by --min-contrast "
                + std::to_string(light_limits(m.record).min_contrast) + " alone; the noise allows --min-contrast "
                + std::to_string(m.weak.contrast));
    warn_of_noise(global, m);
    say(global,
        "result       " + o.out
            + ": cloud.ply, report.json, texture, disparity, depth and validity, "
              "each with a picture *_view.png");
}

} // namespace vexo::app
