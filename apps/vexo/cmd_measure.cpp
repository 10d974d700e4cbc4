#include "causes.h"
#include "common.h"
#include "frames.h"
#include "fringes.h"
#include "matching.h"
#include "pictures.h"
#include "ply.h"
#include "report.h"
#include "rig.h"

#include "vexo/version.h"
#include "vexo/vexo.h"

#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

struct MeasureOptions {
    std::string folder, out, cam0, cam1, disparity, depth;
    std::vector<std::string> calib;
    GrayPhaseMatchingParam param;
    StereoCameraParam camera;
    double min_modulation = 6.0;
    bool interpolate = false;
    bool anchor_given = false, reject_given = false;
};

/// Where the frames and the calibration are, from the folder and the options that replace its parts.
void complete_paths(MeasureOptions& o)
{
    if (o.folder.empty() && (o.calib.empty() || o.cam0.empty() || o.cam1.empty()))
        throw Failure("name a folder with cam0/, cam1/ and cameras.yaml, or give --calib, --cam0 and --cam1");
    std::error_code ignored;
    if (!o.folder.empty() && !fs::is_directory(o.folder, ignored))
        throw Failure(o.folder + ": there is no such folder");
    const fs::path folder(o.folder);
    if (o.calib.empty()) o.calib = { (folder / "cameras.yaml").string() };
    if (o.cam0.empty()) o.cam0 = (folder / "cam0").string();
    if (o.cam1.empty()) o.cam1 = (folder / "cam1").string();
    for (const std::string& file : o.calib)
        if (!fs::exists(file, ignored))
            throw Failure(file + ": there is no such file; give the calibration with --calib");
}

/// Disparities of --depth NEAR:FAR, rounded outwards to whole pixels.
void set_disparities(MeasureOptions& o, const Geometry& geometry)
{
    if (!o.disparity.empty() && !o.depth.empty()) throw Failure("--disparity and --depth: give one of them, not both");
    if (!o.disparity.empty())
        std::tie(o.param.min_disparity, o.param.max_disparity) = parse_range(o.disparity, "--disparity");
    if (o.depth.empty()) return;
    const auto [near, far] = parse_range(o.depth, "--depth");
    if (near <= 0.0) throw Failure("--depth " + o.depth + ": depths must be positive");
    const double a = geometry.disparity(near), b = geometry.disparity(far);
    o.param.min_disparity = std::floor(std::min(a, b));
    o.param.max_disparity = std::ceil(std::max(a, b));
}

/// Everything between the frames and the files.
struct Measurement {
    FrameSet frames; ///< as read; lit frames masked after masks were made
    std::array<PixelMasks, 2> masks;
    std::array<FringeFigures, 2> fringes;
    RunLengths runs;
    StereoCameraPtr camera;
    Geometry geometry;
    cv::Mat texture; ///< rectified lit frame of camera 0
    Cloud cloud;
    CauseMap causes;
    cv::Mat disparity, depth; ///< CV_32F, NaN where nothing was measured
    StageTimes times;
    double read_seconds = 0.0, causes_seconds = 0.0;
};

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void read_input(MeasureOptions& o, Measurement& m)
{
    const auto start = std::chrono::steady_clock::now();
    m.frames = read_frames(o.cam0, o.cam1, 13);
    o.camera.inp_width = m.frames.size.width;
    o.camera.inp_height = m.frames.size.height;
    m.camera = open_stereo_camera(o.calib, o.camera);
    m.geometry = probe_geometry(*m.camera);
    set_disparities(o, m.geometry);
    m.texture = rectified(*m.camera, m.frames.frames[0][1], 0);
    m.read_seconds = seconds_since(start);
}

/// A pixel without fringes decodes to half a period, and a patch of such pixels to one long run that
/// can outvote its neighbours. So they are handed over as unlit, which the decoder leaves out.
void mask_pixels(MeasureOptions& o, Measurement& m)
{
    for (std::size_t camera = 0; camera < 2; ++camera) {
        std::vector<cv::Mat>& frames = m.frames.frames[camera];
        m.masks[camera] = make_masks(frames, o.param, o.min_modulation);
        m.fringes[camera] = measure_fringes(frames, m.masks[camera].modulation);
        frames[1].setTo(0, m.masks[camera].modulation == 0);
    }
    m.runs = choose_run_lengths(m.fringes[0], m.fringes[1]);
    if (!o.anchor_given) o.param.anchor_length = m.runs.anchor;
    if (!o.reject_given) o.param.reject_length = m.runs.reject;
}

void make_maps(Measurement& m)
{
    const auto nothing = static_cast<double>(std::nanf(""));
    m.depth = cv::Mat(m.cloud.size, CV_32F, cv::Scalar(nothing));
    m.disparity = cv::Mat(m.cloud.size, CV_32F, cv::Scalar(nothing));
    for (int y = 0; y < m.depth.rows; ++y) {
        for (int x = 0; x < m.depth.cols; ++x) {
            if (!m.cloud.measured(y, x)) continue;
            const float z = m.cloud.point(y, x).z;
            m.depth.at<float>(y, x) = z;
            m.disparity.at<float>(y, x) = static_cast<float>(m.geometry.disparity(static_cast<double>(z)));
        }
    }
}

/// Range of disparities in words, with the depths that belong to it.
std::string range_text(const Measurement& m)
{
    const double low = m.causes.low_disparity, high = m.causes.high_disparity;
    const double a = m.geometry.depth(low), b = m.geometry.depth(high);
    return number(low, 0) + " ... " + number(high, 0) + " (depth " + number(std::min(a, b), 0) + " ... "
        + number(std::max(a, b), 0) + ")";
}

std::string limits_text(const GrayPhaseMatchingParam& p)
{
    return "[" + number(p.min_disparity, 0) + ", " + number(p.max_disparity, 0) + "]";
}

/// The line for a measurement without a single point.
std::string why_nothing(const MeasureOptions& o, const Measurement& m)
{
    const auto& counts = m.causes.counts;
    const auto first = counts.begin() + static_cast<std::ptrdiff_t>(Cause::contrast);
    if (counts[static_cast<std::size_t>(Cause::disparity)] > 0)
        return "every disparity lies outside " + limits_text(o.param) + ": measured range " + range_text(m)
            + "; pass --disparity or --depth";
    const auto worst = static_cast<Cause>(std::max_element(first, counts.end()) - counts.begin());
    std::string text = "no point was measured; most pixels: " + std::string(words_of(worst));
    if (worst == Cause::contrast)
        text += "; check the exposure and the order of the frames (dark, lit, patterns), or lower --min-contrast";
    if (worst == Cause::modulation) text += "; check the four fringe frames, or lower --min-modulation";
    if (worst == Cause::no_partner || worst == Cause::unwrapping || worst == Cause::phase_difference)
        text += "; check that cam0 and cam1 are not swapped and that the calibration belongs to these cameras";
    return text;
}

/// Smallest round step with which the largest depth fits into 16 bits.
double depth_step(double largest)
{
    for (double power = 1e-5; power < 1e9; power *= 10.0)
        for (const double lead : { 1.0, 2.0, 5.0 })
            if (largest <= 65535.0 * lead * power) return lead * power;
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
    const std::vector<float> finite = finite_values(values);
    const double low = quantile(finite, 0.005), high = quantile(finite, 0.995);
    return false_colour(values, low - 0.02 * (high - low), high + 0.02 * (high - low), title);
}

std::vector<Label> counted_legend(const CauseMap& causes)
{
    std::vector<Label> legend = cause_legend();
    for (std::size_t i = 0; i < legend.size(); ++i)
        legend[i].text
            += ": " + percent(static_cast<double>(causes.counts[i]), static_cast<double>(causes.causes.total()));
    return legend;
}

Json make_report(const MeasureOptions& o, const Measurement& m)
{
    Json report;
    report["program"] = "vexo " VEXO_VERSION_STRING;
    report["method"] = "gray-phase";
    report["input"] = { { "calib", o.calib }, { "cam0", o.cam0 }, { "cam1", o.cam1 } };
    report["camera"] = describe(o.camera, *m.camera, m.geometry);
    if (o.calib.size() < 3) {
        const cv::Size output(m.texture.size());
        report["camera"]["rectifying_rotation"]
            = to_json(rectify(read_cameras(o.calib), m.frames.size, o.camera.alpha, o.camera.flags, output).rotation0);
    }
    report["parameters"] = describe(o.param);
    report["parameters"]["min_modulation"] = o.min_modulation;
    report["parameters"]["interpolate"] = o.interpolate;
    report["fringes"] = { { "cam0", describe(m.fringes[0]) }, { "cam1", describe(m.fringes[1]) } };
    report["run_lengths"]
        = { { "anchor_chosen", !o.anchor_given }, { "reject_chosen", !o.reject_given }, { "reason", m.runs.reason } };
    const auto total = static_cast<double>(m.depth.total());
    report["pixels"] = { { "total", m.depth.total() }, { "measured", m.cloud.count },
        { "share", m.cloud.count / total }, { "not_measured", describe(m.causes) } };
    report["depth"] = quantiles(finite_values(m.depth));
    report["disparity"] = quantiles(finite_values(m.disparity));
    report["disparity"]["q01_without_limits"] = m.causes.low_disparity;
    report["disparity"]["q99_without_limits"] = m.causes.high_disparity;
    report["seconds"] = describe(m.times);
    report["seconds"]["read"] = m.read_seconds;
    report["seconds"]["causes"] = m.causes_seconds;
    return report;
}

void add_files(OutputFolder& out, const Measurement& m, Json& report)
{
    double nearest = 0.0, farthest = 0.0;
    cv::minMaxLoc(m.depth, &nearest, &farthest, nullptr, nullptr, m.depth == m.depth);
    const double step = depth_step(farthest);
    report["depth_png"] = { { "unit", step }, { "invalid", 0 } };

    out.add(
        "cloud.ply", make_ply(m.cloud.points, m.texture, "vexo: axes of rectified camera 0, unit of the calibration"));
    out.add("texture.png", encode(".png", m.texture));
    out.add("disparity.tiff", encode(".tiff", m.disparity));
    out.add("depth.tiff", encode(".tiff", m.depth));
    out.add("depth.png", encode(".png", depth_image(m.depth, step)));
    out.add("valid.png", encode(".png", m.depth == m.depth));

    cv::Mat grey;
    m.texture.convertTo(grey, CV_32F);
    out.add("texture_view.png", encode(".png", false_colour(grey, 0.0, 255.0, "texture [grey levels]")));
    out.add("disparity_view.png", encode(".png", view_of(m.disparity, "disparity [px]")));
    out.add("depth_view.png", encode(".png", view_of(m.depth, "depth [mm]")));
    out.add("valid_view.png",
        encode(".png", labelled(m.causes.causes, counted_legend(m.causes), "which pixels were measured, and why not")));
    out.add("report.json", report.dump(2) + "\n");
}

void print_summary(const GlobalOptions& global, const MeasureOptions& o, const Measurement& m, const Json& report)
{
    const auto total = static_cast<double>(m.depth.total());
    say(global,
        "rig          baseline " + number(m.camera->get_baseline_length(), 2) + ", rectified f "
            + number(m.geometry.f, 1) + " px");
    say(global, "fringes      " + m.runs.reason);
    say(global,
        "unwrapping   anchor " + std::to_string(o.param.anchor_length) + (o.anchor_given ? "" : " (chosen)")
            + ", reject " + std::to_string(o.param.reject_length) + (o.reject_given ? "" : " (chosen)"));
    say(global,
        "measured     " + grouped(m.cloud.count) + " of " + grouped(static_cast<long long>(total)) + " pixels ("
            + percent(m.cloud.count, total) + ")");
    say(global, "not measured");
    for (std::size_t i = 1; i < cause_count; ++i) {
        std::string words = words_of(static_cast<Cause>(i)), count = grouped(m.causes.counts[i]);
        words.resize(std::max<std::size_t>(words.size(), 38), ' ');
        count.insert(0, 10 - std::min<std::size_t>(10, count.size()), ' ');
        say(global, "  " + words + count + "  " + percent(static_cast<double>(m.causes.counts[i]), total));
    }
    for (const char* what : { "disparity", "depth" }) {
        const Json& q = report[what];
        say(global,
            std::string(what) + (std::string(what) == "depth" ? "        " : "    ") + number(q["q01"].get<double>(), 2)
                + " / " + number(q["q50"].get<double>(), 2) + " / " + number(q["q99"].get<double>(), 2)
                + " (1 / 50 / 99 %)");
    }
    const auto lost = static_cast<double>(m.causes.counts[static_cast<std::size_t>(Cause::disparity)]);
    if (lost > 0.01 * (m.cloud.count + lost))
        say(global,
            "note         " + percent(lost, m.cloud.count + lost) + " of the matches lie outside "
                + limits_text(o.param) + "; without limits they span " + range_text(m)
                + "; see --disparity and --depth");
    say(global,
        "result       " + o.out
            + ": cloud.ply, report.json, texture, disparity, depth and validity, "
              "each with a picture *_view.png");
}

void measure(const GlobalOptions& global, MeasureOptions o)
{
    Progress progress(global, 6);
    Measurement m;
    complete_paths(o);
    OutputFolder out(o.out);
    progress.step("reading the frames");
    read_input(o, m);
    progress.step("looking at the fringes");
    mask_pixels(o, m);
    progress.step("decoding and matching");
    m.cloud = match(*m.camera, m.frames.frames, o.param, o.interpolate, &m.times);
    progress.step("finding out why pixels were not measured");
    const auto start = std::chrono::steady_clock::now();
    m.causes = find_causes(*m.camera, m.frames.frames, m.masks[0], o.param, o.interpolate, m.cloud, m.geometry);
    m.causes_seconds = seconds_since(start);
    if (m.cloud.count == 0) throw Failure(why_nothing(o, m));
    progress.step("making the pictures");
    make_maps(m);
    Json report = make_report(o, m);
    add_files(out, m, report);
    progress.step("writing " + o.out);
    out.commit();
    progress.finish();
    print_summary(global, o, m, report);
    put_json(global, report);
}

void add_matching_options(CLI::App& cmd, MeasureOptions& o)
{
    cmd.add_option("--disparity", o.disparity, "accepted disparities MIN:MAX in px (default -300:400)");
    cmd.add_option("--depth", o.depth, "accepted depths NEAR:FAR, instead of --disparity");
    cmd.add_option("--max-phase-diff", o.param.max_phase_diff, "largest phase difference of a match, fringe periods")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    cmd.add_option("--fit-points", o.param.fit_points, "samples of the sub-pixel fit, 3 or 5")
        ->capture_default_str()
        ->check(CLI::IsMember({ 3, 5 }));
    cmd.add_option("--min-contrast", o.param.min_contrast, "smallest lit - dark, grey levels")
        ->capture_default_str()
        ->check(CLI::Range(1, 255));
    cmd.add_option("--min-white", o.param.min_white, "smallest lit grey level")
        ->capture_default_str()
        ->check(CLI::Range(1, 255));
    cmd.add_option("--max-white", o.param.max_white, "largest lit grey level; 256 accepts all")
        ->capture_default_str()
        ->check(CLI::Range(1, 256));
    cmd.add_option("--min-modulation", o.min_modulation, "smallest fringe amplitude, grey levels")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 255.0));
    cmd.add_option("--anchor", o.param.anchor_length, "anchor length of the unwrapping, px (default: chosen)")
        ->check(CLI::Range(0, 100000))
        ->each([&o](const std::string&) { o.anchor_given = true; });
    cmd.add_option("--reject", o.param.reject_length, "reject length of the unwrapping, px (default: chosen)")
        ->check(CLI::Range(0, 100000))
        ->each([&o](const std::string&) { o.reject_given = true; });
    cmd.add_option("--code-spread", o.param.code_spread, "most different gray codes in a trusted run")
        ->capture_default_str()
        ->check(CLI::Range(1, 256));
    cmd.add_flag("--interpolate", o.interpolate, "also fill columns between measured ones, by line fits");
}

} // namespace

void add_measure(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<MeasureOptions>();
    o->param.max_phase_diff = 0.15; // of a fringe: surfaces; the record's default bridges depth edges
    o->param.fit_points = 5;
    CLI::App* cmd = app.add_subcommand("measure", "frames of both cameras -> point cloud, depth and disparity maps");
    cmd->add_option("folder", o->folder, "folder with cam0/ and cam1/ (13 pictures each) and cameras.yaml");
    cmd->add_option("--out", o->out, "folder for the results")->required();
    cmd->add_option("--calib", o->calib,
           "calibration: one YAML file of both cameras, two of one each, or the three files of an hmat set")
        ->expected(1, 3);
    cmd->add_option("--cam0", o->cam0, "pictures of camera 0: a folder, or a pattern such as 'left_*.png'");
    cmd->add_option("--cam1", o->cam1, "pictures of camera 1");
    cmd->add_option("--alpha", o->camera.alpha, "rectification: 0 only valid pixels, 1 all, -1 OpenCV's default")
        ->capture_default_str()
        ->check(CLI::Range(-1.0, 1.0));
    cmd->add_option("--flags", o->camera.flags, "rectification flags; 1024: same principal point in both pictures")
        ->capture_default_str();
    add_matching_options(*cmd, *o);
    finish_command(*cmd, global,
        "vexo measure scan --out result --depth 500:700\n"
        "  reads scan/cam0, scan/cam1, scan/cameras.yaml; writes result/cloud.ply and the pictures beside it",
        [o, &global] { measure(global, *o); });
}

} // namespace vexo::app
