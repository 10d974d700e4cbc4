#include "board_pictures.h"
#include "capture_check.h"
#include "common.h"
#include "frames.h"
#include "pattern_files.h"
#include "pictures.h"
#include "report.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct CheckOptions {
    std::string folder, cam0, cam1, method, out;
    std::vector<int> periods;
};

/// One camera's frames as they lie in the folder, and what is wrong with them.
struct CameraFrames {
    std::string where;
    std::vector<std::string> names; ///< file names, in capture order
    std::vector<cv::Mat> frames;    ///< empty when files are missing or their sizes differ
    std::vector<Finding> faults;
};

/// Method of a capture: what was asked for, what a file of the capture says, or what the number of frames allows.
CaptureMethod find_method(const CheckOptions& o, std::size_t frames)
{
    CaptureMethod method { o.method, o.periods };
    for (const char* name : { "scene.json", "patterns.json" }) {
        const fs::path file = fs::path(o.folder) / name;
        std::error_code ignored;
        if (o.folder.empty() || !fs::exists(file, ignored)) continue;
        const Json json = read_json(file.string());
        if (method.name.empty() && json.is_object() && json.contains("method") && json["method"].is_string())
            method.name = json["method"].get<std::string>();
        if (method.periods.empty() && json.is_object() && json.contains("periods") && json["periods"].is_array())
            for (const Json& period : json["periods"])
                if (period.is_number_integer()) method.periods.push_back(period.get<int>());
    }
    if (method.name.empty()) method.name = frames == 14 ? "multi-phase" : "gray-phase";
    if (method.name != "gray-phase" && method.name != "multi-phase")
        throw Failure(o.folder + ": was recorded for " + method.name + ", which has no fringes to check");
    if (!method.multi()) method.periods.clear();
    if (method.multi() && method.periods.empty()) method.periods = { 9, 10, 11 };
    const bool usable = !method.multi() || method.periods.size() == 3;
    for (const int period : method.periods)
        if (period < 2 || period > 4096 || !usable) throw Failure("--periods: give three, each 2 to 4096 projector px");
    return method;
}

std::string listed(const std::vector<std::string>& names)
{
    std::string text;
    for (std::size_t i = 0; i < names.size() && i < 6; ++i)
        text += (i == 0 ? "" : ", ") + names[i];
    return names.size() > 6 ? text + ", ..." : text;
}

/// Numbers that a set of names lacks, as such names.
std::vector<std::string> missing_numbers(const std::vector<std::string>& names, std::size_t count)
{
    std::map<int, std::string> present;
    for (const std::string& name : names)
        if (const auto n = number_in_name(name)) present[*n] = name;
    std::vector<std::string> missing;
    if (present.empty()) return missing;
    const int first = present.count(0) > 0 || present.rbegin()->first < static_cast<int>(count) ? 0 : 1;
    for (int n = first; n < first + static_cast<int>(count); ++n)
        if (present.count(n) == 0) missing.push_back("number " + std::to_string(n));
    return missing;
}

void find_missing(CameraFrames& c, std::size_t count, int camera)
{
    if (c.names.size() == count) return;
    std::string text
        = c.where + " has " + std::to_string(c.names.size()) + " pictures, the method has " + std::to_string(count);
    const std::vector<std::string> missing = missing_numbers(c.names, count);
    if (c.names.size() < count && !missing.empty() && missing.size() + c.names.size() == count)
        text += "; " + listed(missing) + (missing.size() == 1 ? " is" : " are") + " missing";
    c.faults.push_back({ "frames-missing", Weight::spoils, camera, text });
}

/// Reads the frames; those of another size than most have are named.
void read_all(CameraFrames& c, const std::vector<std::string>& paths, int camera)
{
    std::map<std::pair<int, int>, int> sizes;
    for (const std::string& path : paths) {
        c.frames.push_back(read_grey(path));
        ++sizes[{ c.frames.back().cols, c.frames.back().rows }];
    }
    if (sizes.size() <= 1) return;
    const auto most = std::max_element(
        sizes.begin(), sizes.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
    std::vector<std::string> odd;
    for (std::size_t i = 0; i < c.frames.size(); ++i)
        if (c.frames[i].cols != most->first.first || c.frames[i].rows != most->first.second)
            odd.push_back(
                c.names[i] + " is " + std::to_string(c.frames[i].cols) + " x " + std::to_string(c.frames[i].rows));
    c.faults.push_back({ "mixed-size", Weight::spoils, camera,
        listed(odd) + ", the others are " + std::to_string(most->first.first) + " x "
            + std::to_string(most->first.second) });
    c.frames.clear();
}

CameraFrames load_camera(const std::string& where, const std::vector<std::string>& paths, std::size_t count, int camera)
{
    CameraFrames c;
    c.where = where;
    for (const std::string& path : paths)
        c.names.push_back(fs::path(path).filename().string());
    find_missing(c, count, camera);
    if (c.faults.empty()) read_all(c, paths, camera);
    return c;
}

/// Bars of the modulation of both cameras.
cv::Mat histogram_picture(const std::vector<CameraFigures>& cameras)
{
    constexpr int bar = 16, height = 200, left = 50, top = 40;
    const int width = bar * 32;
    cv::Mat picture(top + 2 * (height + 70), left + width + 30, CV_8UC3, cv::Scalar(255, 255, 255));
    const auto write = [&](const std::string& text, int x, int y) {
        cv::putText(picture, text, { x, y }, cv::FONT_HERSHEY_SIMPLEX, 0.45, cv::Scalar(40, 40, 40), 1, cv::LINE_AA);
    };
    for (std::size_t c = 0; c < cameras.size(); ++c) {
        const int base = top + static_cast<int>(c) * (height + 70) + height;
        const auto& shares = cameras[c].modulation_histogram;
        const double most = std::max(*std::max_element(shares.begin(), shares.end()), 1e-9);
        write("camera " + std::to_string(c) + ": share of the pixels by modulation [grey levels], median "
                + number(cameras[c].modulation, 0),
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
        encode(".png", false_colour(f.residual_map, -wide, wide, "residual (I0+I2-I1-I3)/4" + of + " [grey]")));
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
        { "lighting_up", { { "share", n(f.lighting_up) }, { "frame", names[f.lighting_up_frame] } } },
        { "brightness_change", { { "share", n(f.brightness_change) }, { "frame", names[f.brightness_frame] } } } };
}

std::string where_found(const Finding& finding)
{
    return finding.camera < 0 ? "" : "camera " + std::to_string(finding.camera) + ": ";
}

/// One line: what spoils the capture or makes it worse, each name once, and the first such finding in full.
std::string verdict_line(const std::vector<Finding>& findings, Weight worst)
{
    if (worst == Weight::note) return "good";
    std::vector<std::string> names;
    const Finding* first = nullptr;
    for (const Finding& finding : findings) {
        if (finding.weight == Weight::note) continue;
        if (std::find(names.begin(), names.end(), finding.name) == names.end()) names.push_back(finding.name);
        if (first == nullptr && finding.weight == worst) first = &finding;
    }
    std::string all;
    for (const std::string& name : names)
        all += (all.empty() ? "" : ", ") + name;
    return std::string(worst == Weight::spoils ? "not usable: " : "usable, but ") + all + " (" + where_found(*first)
        + first->text + ")";
}

const char* word(Weight weight)
{
    return weight == Weight::spoils ? "spoils" : weight == Weight::worse ? "worse" : "note";
}

void say_figures(const GlobalOptions& options, const CameraFigures& f, int camera)
{
    say(options,
        "camera " + std::to_string(camera) + ": fringes seen on " + percent(f.pixels, 1) + " of the image, "
            + percent(f.fitting, 1) + " of them fit");
    say(options,
        "  exposure: lit frame " + number(f.lit_median, 0) + " (99 %: " + number(f.lit_bright, 0)
            + "), at 255 in any frame " + percent(f.saturated, 1) + " of the image, in a fringe frame "
            + percent(f.saturated_fringes, 1) + " of the pixels with fringes");
    say(options,
        "  modulation " + number(f.modulation, 1) + ", noise " + number(f.dark_noise, 2) + " dark, "
            + number(f.fringe_noise, 2) + " in the fringes [grey levels]");
    say(options,
        "  residual " + number(f.residual_rms, 2) + " grey levels rms, second harmonic "
            + percent(std::abs(f.second_harmonic), 1) + ", gamma " + number(f.gamma, 2));
}

struct Checked {
    CaptureMethod method;
    std::vector<CameraFigures> figures; ///< of the cameras that could be looked at
    std::vector<Finding> findings;
    Json cameras = Json::array();
};

void check_camera(CameraFrames& c, int camera, Checked& checked)
{
    checked.findings.insert(checked.findings.end(), c.faults.begin(), c.faults.end());
    if (!c.faults.empty()) {
        checked.cameras.push_back({ { "pictures", c.names.size() } });
        return;
    }
    const auto exchange = find_exchange(c.frames, checked.method);
    const CameraFigures figures = measure_capture(c.frames, checked.method);
    for (const Finding& finding : judge(figures, checked.method, camera, exchange, c.names))
        checked.findings.push_back(finding);
    checked.cameras.push_back(to_json(figures, c.names));
    checked.figures.push_back(figures);
}

/// Gamma of all cameras that could be measured; NaN: none.
double common_gamma(const std::vector<CameraFigures>& figures)
{
    double sum = 0;
    for (const CameraFigures& f : figures)
        sum += f.gamma / static_cast<double>(figures.size());
    return figures.empty() ? std::nan("") : sum;
}

void write_results(OutputFolder& out, const Checked& checked, const Json& json)
{
    for (std::size_t c = 0; c < checked.figures.size(); ++c)
        add_pictures(out, checked.figures[c], c);
    if (!checked.figures.empty())
        out.add("modulation_histogram.png", encode(".png", histogram_picture(checked.figures)));
    const double gamma = common_gamma(checked.figures);
    if (std::isfinite(gamma)) out.add("gamma_table.json", gamma_json(undo_gamma(gamma)));
    out.add("check.json", json_text(json));
    out.commit();
}

void complete(CheckOptions& o)
{
    std::error_code ignored;
    if (o.folder.empty() && (o.cam0.empty() || o.cam1.empty()))
        throw Failure("name a folder with cam0/ and cam1/, or give --cam0 and --cam1");
    if (!o.folder.empty() && !fs::is_directory(o.folder, ignored))
        throw Failure(o.folder + ": there is no such folder");
    if (o.cam0.empty()) o.cam0 = (fs::path(o.folder) / "cam0").string();
    if (o.cam1.empty()) o.cam1 = (fs::path(o.folder) / "cam1").string();
    if (o.out.empty()) o.out = (fs::path(o.folder) / "check").string();
}

void check(CheckOptions o, const GlobalOptions& options)
{
    complete(o);
    OutputFolder out(o.out);
    const std::array<std::string, 2> where { o.cam0, o.cam1 };
    const std::array<std::vector<std::string>, 2> paths { find_frames(o.cam0), find_frames(o.cam1) };
    for (std::size_t c = 0; c < 2; ++c) {
        if (paths[c].empty()) throw Failure(where[c] + ": no pictures found");
        out.stay_out_of(paths[c]);
    }

    Checked checked;
    checked.method = find_method(o, std::max(paths[0].size(), paths[1].size()));
    Progress progress(options, 3);
    cv::Size size;
    for (std::size_t c = 0; c < 2; ++c) {
        progress.step("camera " + std::to_string(c));
        const int camera = static_cast<int>(c);
        CameraFrames frames = load_camera(where[c], paths[c], checked.method.frame_count(), camera);
        if (!frames.frames.empty() && size.empty()) size = frames.frames[0].size();
        if (!frames.frames.empty() && frames.frames[0].size() != size)
            checked.findings.push_back(
                { "mixed-size", Weight::spoils, -1, "the two cameras' frames have different sizes" });
        check_camera(frames, camera, checked);
    }
    Weight worst = Weight::note;
    for (const Finding& f : checked.findings)
        worst = std::max(worst, f.weight);
    const std::string verdict = verdict_line(checked.findings, worst);
    Json json { { "verdict", verdict }, { "method", checked.method.name } };
    if (checked.method.multi()) json["periods"] = checked.method.periods;
    json["gamma"] = number_or_null(common_gamma(checked.figures));
    json["findings"] = Json::array();
    for (const Finding& f : checked.findings)
        json["findings"].push_back(
            { { "name", f.name }, { "weight", word(f.weight) }, { "camera", f.camera }, { "text", f.text } });
    json["cameras"] = checked.cameras;
    progress.step("pictures");
    write_results(out, checked, json);
    progress.finish();

    for (std::size_t c = 0; c < checked.figures.size() && checked.figures.size() == 2; ++c)
        say_figures(options, checked.figures[c], static_cast<int>(c));
    for (const Finding& f : checked.findings)
        say(options, "  " + f.name + ", " + where_found(f) + f.text);
    say(options, o.out + ": check.json, gamma_table.json, pictures of exposure, modulation and residual");
    put_json(options, json);
    if (worst == Weight::spoils) throw Failure("verdict: " + verdict);
    say(options, "verdict: " + verdict);
}

} // namespace

void add_check(CLI::App& app, GlobalOptions& options)
{
    auto o = std::make_shared<CheckOptions>();
    CLI::App* command = app.add_subcommand("check", "is a capture good enough to be measured?");
    command->add_option("folder", o->folder, "folder with cam0/ and cam1/");
    command->add_option("--cam0", o->cam0, "frames of camera 0: a folder, or a pattern in quotes");
    command->add_option("--cam1", o->cam1, "frames of camera 1");
    command
        ->add_option(
            "--method", o->method, "gray-phase or multi-phase (default: by scene.json or the number of frames)")
        ->check(CLI::IsMember({ "gray-phase", "multi-phase" }));
    command->add_option("--periods", o->periods, "multi-phase: the three periods, projector px")->delimiter(',');
    command->add_option(
        "--out", o->out, "folder for check.json, gamma_table.json and pictures (default: FOLDER/check)");
    finish_command(*command, options,
        "vexo check scan\n  ends with one line: \"verdict: good\", \"verdict: usable, but over-exposed (...)\", or, as "
        "an "
        "error with exit code 1,\n  \"verdict: not usable: out-of-order (camera 0: frame04.png and frame05.png are "
        "exchanged)\"",
        [o, &options] { check(*o, options); });
}

} // namespace vexo::app
