#include "host/reports/capture_report.h"

#include "base/pictures.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/captures/gamma.h"
#include "host/reports/false_colour.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// Bars of the modulation of both cameras.
cv::Mat histogram_picture(const std::vector<const CameraFigures*>& cameras)
{
    constexpr int bar = 16, height = 200, left = 50, top = 40;
    const int width = bar * 32;
    cv::Mat picture(top + 2 * (height + 70), left + width + 30, CV_8UC3, cv::Scalar(255, 255, 255));
    const auto write = [&](const std::string& text, int x, int y) {
        cv::putText(picture, text, { x, y }, cv::FONT_HERSHEY_SIMPLEX, 0.45, cv::Scalar(40, 40, 40), 1, cv::LINE_AA);
    };
    for (std::size_t c = 0; c < cameras.size(); ++c) {
        const int base = top + static_cast<int>(c) * (height + 70) + height;
        const auto& shares = cameras[c]->modulation_histogram;
        const double most = std::max(*std::max_element(shares.begin(), shares.end()), 1e-9);
        write("camera " + std::to_string(c) + ": share of the pixels by modulation [grey levels], median "
                + number(cameras[c]->modulation, 0),
            left, base - height - 10);
        for (int i = 0; i < 32; ++i) {
            const int top_of_bar
                = base - static_cast<int>(std::lround(height * shares[static_cast<std::size_t>(i)] / most));
            const cv::Scalar colour = 4 * i < 15 ? cv::Scalar(70, 90, 220) : cv::Scalar(170, 120, 40);
            cv::rectangle(picture, cv::Point(left + bar * i + 1, top_of_bar), cv::Point(left + bar * (i + 1) - 2, base),
                colour, cv::FILLED);
            if (i % 4 == 0) write(std::to_string(4 * i), left + bar * i - 4, base + 18);
        }
        cv::line(picture, { left, base }, { left + width, base }, cv::Scalar(40, 40, 40));
        write(percent(most, 1.0), 4, base - height + 12);
    }
    return picture;
}

void add_pictures(OutputFolder& out, const CameraFigures& f, std::size_t camera)
{
    const std::string end = std::to_string(camera) + ".png", of = " of camera " + std::to_string(camera);
    const std::vector<cv::Vec3b> colours
        = { { 40, 40, 40 }, { 200, 120, 60 }, { 90, 170, 70 }, { 60, 200, 240 }, { 50, 50, 230 } };
    std::vector<Label> legend;
    for (std::size_t i = 0; i < pixel_kinds().size(); ++i)
        legend.push_back({ colours[i], pixel_kinds()[i] });
    out.add("exposure" + end, encode(".png", labelled(f.kinds, legend, "pixels" + of)));
    const double bright = std::max(20.0, quantile(finite_values(f.modulation_map), 0.99));
    out.add(
        "modulation" + end, encode(".png", false_colour(f.modulation_map, 0, bright, "modulation" + of + " [grey]")));
    const double wide = std::clamp(4 * f.residual_rms, 2.0, 40.0);
    out.add("residual" + end,
        encode(".png",
            false_colour(f.residual_map, -wide, wide, "residual (I0+I2-I1-I3)/4" + of + " [grey]", Ramp::Signed)));
}

/// Rounded to five decimals; JSON has no NaN.
Json number_or_null(double value)
{
    constexpr double steps = 1e5;
    if (!std::isfinite(value)) return nullptr;
    return std::round(value * steps) / steps;
}

Json to_json(const CameraFigures& f, const std::vector<std::string>& names)
{
    const auto n = number_or_null;
    return { { "size", { f.size.width, f.size.height } }, { "pixels_with_fringes", n(f.pixels) },
        { "exposure", { { "lit_median", n(f.lit_median) }, { "lit_99_percent", n(f.lit_bright) } } },
        { "saturated_share", n(f.saturated) }, { "saturated_in_fringes", n(f.saturated_fringes) },
        { "modulation",
            { { "median", n(f.modulation) }, { "histogram_bin_width", 4 }, { "histogram", f.modulation_histogram } } },
        { "noise", { { "dark", n(f.dark_noise) }, { "fringes", n(f.fringe_noise) } } },
        { "residual", { { "rms", n(f.residual_rms) }, { "second_harmonic", n(f.second_harmonic) } } },
        { "gamma", n(f.gamma) }, { "fringes_that_fit", n(f.fitting) }, { "code_slip", n(f.slip) },
        { "code_slip_spread", n(f.slip_spread) }, { "lit_share", n(f.lit) }, { "measurable_share", n(measurable(f)) },
        { "sharpness", n(f.sharpness) }, { "phase_noise", n(phase_noise(f)) }, { "flattened_share", n(f.flattened) },
        { "fringe_length", n(f.fringe_length) }, { "disparity_noise", n(disparity_noise(f)) },
        { "lighting_up", { { "share", n(f.lighting_up) }, { "frame", names[f.lighting_up_frame] } } },
        { "brightness_change", { { "share", n(f.brightness_change) }, { "frame", names[f.brightness_frame] } } } };
}

void add_figures(std::vector<std::string>& lines, const CameraFigures& f, std::size_t camera)
{
    lines.push_back("camera " + std::to_string(camera) + ": fringes seen on " + percent(f.pixels, 1) + " of the image, "
        + percent(f.fitting, 1) + " of them fit");
    lines.push_back("  exposure: lit frame " + number(f.lit_median, 0) + " (99 %: " + number(f.lit_bright, 0)
        + "), at 255 in any frame " + percent(f.saturated, 1) + " of the image, in a fringe frame "
        + percent(f.saturated_fringes, 1) + " of the pixels with fringes");
    lines.push_back("  modulation " + number(f.modulation, 1) + ", noise " + number(f.dark_noise, 2) + " dark, "
        + number(f.fringe_noise, 2) + " in the fringes [grey levels]");
    lines.push_back("  fringes of " + number(f.fringe_length, 1) + " px; to be expected: " + percent(measurable(f), 1)
        + " of what is lit, disparities with a noise of " + number(disparity_noise(f), 3) + " px");
    lines.push_back("  residual " + number(f.residual_rms, 2) + " grey levels rms, second harmonic "
        + percent(std::abs(f.second_harmonic), 1) + ", gamma " + number(f.gamma, 2));
}

} // namespace

Json capture_json(const Checked& checked)
{
    Json json { { "verdict", capture_verdict(checked.findings) }, { "method", name_of(checked.method.method) } };
    if (checked.method.multi()) json["periods"] = checked.method.periods;
    json["bits"] = checked.bits;
    json["gamma"] = number_or_null(checked.gamma());
    json["findings"] = Json::array();
    for (const Finding& finding : checked.findings)
        json["findings"].push_back(to_json(finding));
    json["cameras"] = Json::array();
    for (const CheckedCamera& camera : checked.cameras)
        json["cameras"].push_back(
            camera.figures ? to_json(*camera.figures, camera.names) : Json { { "pictures", camera.names.size() } });
    return json;
}

void add_files(OutputFolder& out, const Checked& checked)
{
    std::vector<const CameraFigures*> measured;
    for (std::size_t c = 0; c < checked.cameras.size(); ++c) {
        if (!checked.cameras[c].figures) continue;
        measured.push_back(&*checked.cameras[c].figures);
        add_pictures(out, *measured.back(), c);
    }
    if (!measured.empty()) out.add("modulation_histogram.png", encode(".png", histogram_picture(measured)));
    const double gamma = checked.gamma();
    if (std::isfinite(gamma)) out.add("gamma_table.json", gamma_json(undo_gamma(gamma)));
    out.add("check.json", json_text(capture_json(checked)));
}

std::vector<std::string> capture_lines(const Checked& checked)
{
    std::vector<std::string> lines;
    for (std::size_t c = 0; c < checked.cameras.size(); ++c)
        if (checked.cameras[c].figures) add_figures(lines, *checked.cameras[c].figures, c);
    for (const Finding& finding : checked.findings)
        lines.push_back("  " + finding.name + ", " + sentence(finding));
    return lines;
}

std::string capture_verdict(const std::vector<Finding>& findings)
{
    const Weight worst = heaviest(findings);
    if (worst < Weight::unknown) return "good";
    std::vector<std::string> names;
    const Finding* first = nullptr;
    for (const Finding& finding : findings) {
        if (finding.weight < std::min(worst, Weight::worse)) continue;
        if (std::find(names.begin(), names.end(), finding.name) == names.end()) names.push_back(finding.name);
        if (first == nullptr && finding.weight == worst) first = &finding;
    }
    std::string all;
    for (const std::string& name : names)
        all += (all.empty() ? "" : ", ") + name;
    const char* const judged[] = { "", "", "usable, but not known: ", "usable, but ", "not usable: " };
    return std::string(judged[static_cast<std::size_t>(worst)]) + all + " (" + sentence(*first) + ")";
}

} // namespace vexo
