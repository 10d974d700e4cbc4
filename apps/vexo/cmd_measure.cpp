#include "common.h"
#include "disparity_range.h"
#include "measurement.h"
#include "pattern_files.h"

#include "vexo/vexo.h"

#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <tuple>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

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

/// Options that other methods have are mistakes, not wishes to be passed over.
struct MethodOptions {
    std::vector<const CLI::Option*> phases, gray, multi, sgbm;
};

void reject_foreign(const MethodOptions& options, Method method)
{
    const auto reject = [method](const std::vector<const CLI::Option*>& foreign) {
        for (const CLI::Option* option : foreign)
            if (option->count() > 0)
                throw Failure(option->get_name() + ": has no meaning for the method " + name_of(method));
    };
    if (method == Method::sgbm) reject(options.phases);
    if (method != Method::gray_phase) reject(options.gray);
    if (method != Method::multi_phase) reject(options.multi);
    if (method != Method::sgbm) reject(options.sgbm);
}

// --- parameters ------------------------------------------------------------------------------------

/// Fields that the phase methods share. Five points: the record's default of three has more noise.
template <class Param> Param phase_record(const MeasureOptions& o, double max_phase_diff, int min_contrast)
{
    Param param;
    param.max_phase_diff = o.max_phase_diff.value_or(max_phase_diff);
    param.fit_points = o.fit_points;
    param.datatype = o.decoded ? 1 : 0;
    param.min_contrast = o.min_contrast.value_or(min_contrast);
    param.max_white = o.max_white;
    param.min_white = o.min_white;
    return param;
}

GrayPhaseMatchingParam gray_record(const MeasureOptions& o)
{
    constexpr double max_phase_diff = 0.15; // of a fringe: surfaces; the record's default bridges depth edges
    auto param = phase_record<GrayPhaseMatchingParam>(o, max_phase_diff, GrayPhaseMatchingParam().min_contrast);
    param.code_spread = o.code_spread;
    return param;
}

MultiPhaseMatchingParam multi_record(const MeasureOptions& o)
{
    constexpr int min_contrast = 60; // grey levels: weaker pixels lose half of their fringe numbers
    if (o.steps == 3)
        throw Failure("--steps 3: the library's three-step formula is wrong for ordinary three-step patterns, by up to "
                      "0.8 rad of phase; project four steps");
    if (o.steps != 4) throw Failure("--steps " + std::to_string(o.steps) + ": fringes are measured in four steps");
    auto param = phase_record<MultiPhaseMatchingParam>(o, MultiPhaseMatchingParam().max_phase_diff, min_contrast);
    std::vector<int> periods = o.periods.empty() ? periods_told_in(o.folder) : o.periods;
    if (periods.empty()) periods = { 9, 10, 11 };
    check_periods(periods);
    std::copy(periods.begin(), periods.end(), param.periods);
    return param;
}

MatchingRecord record_of(const MeasureOptions& o, Method method)
{
    if (method == Method::gray_phase) return gray_record(o);
    if (method == Method::multi_phase) return multi_record(o);
    SGBMatchingParam param;
    param.blockSize = o.block;
    return param;
}

/// Disparities of --disparity, or of --depth NEAR:FAR rounded outwards to whole pixels; nothing: neither is given.
std::optional<std::pair<double, double>> given_range(const MeasureOptions& o, const Geometry& geometry)
{
    if (!o.disparity.empty() && !o.depth.empty()) throw Failure("--disparity and --depth: give one of them, not both");
    if (!o.disparity.empty()) return parse_range(o.disparity, "--disparity");
    if (o.depth.empty()) return std::nullopt;
    const auto [near, far] = parse_range(o.depth, "--depth");
    if (near <= 0.0) throw Failure("--depth " + o.depth + ": depths must be positive");
    const double a = geometry.disparity(near), b = geometry.disparity(far);
    return std::make_pair(std::floor(std::min(a, b)), std::ceil(std::max(a, b)));
}

// --- steps of a measurement ------------------------------------------------------------------------

double seconds_since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void read_input(MeasureOptions& o, Measurement& m)
{
    const auto start = std::chrono::steady_clock::now();
    m.frames
        = o.decoded ? read_decoded(o.cam0, o.cam1, m.method()) : read_frames(o.cam0, o.cam1, frame_count(m.method()));
    o.camera.inp_width = m.frames.size.width;
    o.camera.inp_height = m.frames.size.height;
    m.camera = open_stereo_camera(o.calib, o.camera);
    m.geometry = probe_geometry(*m.camera);
    m.texture = rectified(*m.camera, m.frames.frames[0][m.method() == Method::sgbm ? 0 : 1], 0);
    m.read_seconds = seconds_since(start);
}

std::vector<FringeFigures> figures_of(const MeasureOptions& o, const Measurement& m, std::size_t camera)
{
    const std::vector<cv::Mat>& frames = m.frames.frames[camera];
    const cv::Mat& mask = m.masks[camera].modulation;
    std::vector<FringeFigures> figures;
    const std::size_t first_map = m.method() == Method::gray_phase ? 3 : 2;
    for (std::size_t map = first_map; o.decoded && map < frames.size(); ++map)
        figures.push_back(measure_phase(frames[map], mask));
    if (o.decoded) return figures;
    for (const std::size_t first : phase_sets(m.method()))
        figures.push_back(measure_fringes(frames, first, mask));
    return figures;
}

/// Neighbours in camera 1 are this far apart in projector px. On a surface the nearest of them is at most half as far
/// from any coordinate, more where it turns away; what is much farther lies behind a depth edge. On the virtual rig's
/// bust 1.5 px of the camera measure 0.2 % less than 4 px do, with 40 % fewer wrong points.
double largest_phase_difference(const Measurement& m)
{
    constexpr double camera_px = 1.5, least = 0.5;
    double px_per_projector_px = 0.0;
    for (std::size_t f = 0; f < m.fringes[1].size(); ++f)
        px_per_projector_px = std::max(px_per_projector_px, m.fringes[1][f].length_px / m.periods()[f]);
    return px_per_projector_px > 0.0 ? std::max(least, camera_px / px_per_projector_px) : least;
}

void choose_parameters(const MeasureOptions& o, Measurement& m)
{
    if (auto* multi = std::get_if<MultiPhaseMatchingParam>(&m.record))
        multi->max_phase_diff = o.max_phase_diff.value_or(largest_phase_difference(m));
    auto* gray = std::get_if<GrayPhaseMatchingParam>(&m.record);
    if (!gray) return;
    m.runs = choose_run_lengths(m.fringes[0][0], m.fringes[1][0]);
    m.runs.anchor_given = o.anchor.has_value();
    m.runs.reject_given = o.reject.has_value();
    gray->anchor_length = o.anchor.value_or(m.runs.anchor);
    gray->reject_length = o.reject.value_or(m.runs.reject);
}

/// A pixel without fringes decodes to a phase all the same: gray code sees a patch of such pixels as one long run
/// that can outvote its neighbours, several periods may agree on a coordinate by chance. So they are handed over as
/// unlit, which the decoder leaves out.
void mask_pixels(const MeasureOptions& o, Measurement& m)
{
    const auto sets = o.decoded ? std::vector<std::size_t>() : phase_sets(m.method());
    in_parallel(2, [&](std::size_t camera) {
        std::vector<cv::Mat>& frames = m.frames.frames[camera];
        m.masks[camera] = make_masks(frames, light_limits(m.record), sets, o.min_modulation);
        m.fringes[camera] = figures_of(o, m, camera);
        if (camera == 0 && m.method() == Method::multi_phase && !o.decoded)
            m.weak = find_weak_pixels(frames, m.masks[0].modulation, m.fringes[0], light_limits(m.record).min_contrast);
        frames[1].setTo(0, m.masks[camera].modulation == 0);
    });
}

void set_range(Measurement& m, const std::pair<double, double>& range, const std::string& origin)
{
    set_disparity_limits(m.record, range.first, range.second);
    m.range_origin = origin;
}

constexpr const char* from_the_data = "found in the data";

void measure_phases(const MeasureOptions& o, Measurement& m, Progress& progress)
{
    const auto given = given_range(o, m.geometry);
    progress.step("looking at the fringes");
    mask_pixels(o, m);
    choose_parameters(o, m);
    progress.step("matching without limits");
    auto start = std::chrono::steady_clock::now();
    const Cloud first_pass = match(*m.camera, m.frames.frames, lift_disparity(m.record), o.interpolate);
    m.any_disparity = disparities_of(first_pass, m.geometry);
    if (given)
        set_range(m, *given, "as given");
    else if (const auto found = occupied_range(m.any_disparity))
        set_range(m, *found, from_the_data);
    m.first_pass_seconds = seconds_since(start);
    progress.step("decoding and matching");
    m.cloud = match(*m.camera, m.frames.frames, m.record, o.interpolate, &m.times);
    progress.step("finding out why pixels were not measured");
    start = std::chrono::steady_clock::now();
    m.causes = find_phase_causes(*m.camera, m.frames.frames, m.masks[0], m.record, o.interpolate, m.cloud, first_pass);
    m.causes_seconds = seconds_since(start);
}

void measure_blocks(const MeasureOptions& o, Measurement& m, Progress& progress)
{
    auto given = given_range(o, m.geometry);
    progress.step("looking for the disparity range");
    auto start = std::chrono::steady_clock::now();
    const char* origin = "as given";
    if (!given) {
        given = matching_range(m.texture, rectified(*m.camera, m.frames.frames[1][0], 1), m.geometry);
        origin = from_the_data;
    }
    if (!given) throw Failure("the two pictures fit each other nowhere; pass --depth or --disparity if they should");
    if (o.num_disparities) given->second = given->first + *o.num_disparities - 1;
    set_range(m, *given, origin);
    if (o.num_disparities) std::get<SGBMatchingParam>(m.record).numDisparities = *o.num_disparities;
    m.first_pass_seconds = seconds_since(start);
    progress.step("matching");
    m.cloud = match(*m.camera, m.frames.frames, m.record, o.interpolate, &m.times);
    progress.step("finding out why pixels were not measured");
    start = std::chrono::steady_clock::now();
    m.causes = find_block_causes(*m.camera, m.frames.frames, std::get<SGBMatchingParam>(m.record), m.cloud);
    m.causes_seconds = seconds_since(start);
}

void make_maps(Measurement& m)
{
    const auto nothing = static_cast<double>(std::nanf(""));
    m.depth = cv::Mat(m.cloud.size, CV_32F, cv::Scalar(nothing));
    m.disparity = cv::Mat(m.cloud.size, CV_32F, cv::Scalar(nothing));
    in_parallel(static_cast<std::size_t>(m.depth.rows), [&m](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < m.depth.cols; ++x) {
            if (!m.cloud.measured(y, x)) continue;
            const float z = m.cloud.point(y, x).z;
            m.depth.at<float>(y, x) = z;
            m.disparity.at<float>(y, x) = static_cast<float>(m.geometry.disparity(static_cast<double>(z)));
        }
    });
}

void measure(const GlobalOptions& global, MeasureOptions o, const MethodOptions& options)
{
    Progress progress(global, 7);
    Measurement m;
    complete_paths(o);
    m.choice = choose_method(o.method, o.folder, o.cam0, o.decoded);
    reject_foreign(options, m.method());
    m.record = record_of(o, m.method());
    OutputFolder out(o.out);
    for (const std::string& pictures : { o.cam0, o.cam1 })
        out.stay_out_of(find_frames(pictures));
    progress.step("reading the frames");
    read_input(o, m);
    if (m.method() == Method::sgbm)
        measure_blocks(o, m, progress);
    else
        measure_phases(o, m, progress);
    if (m.cloud.count == 0) throw Failure(why_nothing(m));
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

void add_range_options(CLI::App& cmd, MeasureOptions& o, MethodOptions& options)
{
    cmd.add_option("--disparity", o.disparity, "accepted disparities MIN:MAX in px (default: found in the data)");
    cmd.add_option("--depth", o.depth, "accepted depths NEAR:FAR, instead of --disparity");
    options.sgbm = {
        cmd.add_option("--block", o.block, "sgbm: side of the compared blocks, px, odd")
            ->capture_default_str()
            ->check(CLI::Range(1, 255)),
        cmd.add_option("--num-disparities", o.num_disparities,
               "sgbm: disparities from the smallest on, a multiple of 16 (default: the range)")
            ->check(CLI::Range(16, 4064)),
    };
}

void add_light_options(CLI::App& cmd, MeasureOptions& o, MethodOptions& options)
{
    const auto grey = [&](const char* name, int& value, const char* what, int limit) {
        return cmd.add_option(name, value, what)->capture_default_str()->check(CLI::Range(1, limit));
    };
    options.phases.push_back(cmd.add_option("--min-contrast", o.min_contrast,
                                    "smallest lit - dark, grey levels (default: 16, multi-phase 60)")
                                 ->check(CLI::Range(1, 255)));
    options.phases.push_back(grey("--min-white", o.min_white, "smallest lit grey level", 255));
    options.phases.push_back(grey("--max-white", o.max_white, "largest lit grey level; 256 accepts all", 256));
    options.phases.push_back(
        cmd.add_option("--min-modulation", o.min_modulation, "smallest fringe amplitude, grey levels")
            ->capture_default_str()
            ->check(CLI::Range(0.0, 255.0)));
}

void add_phase_options(CLI::App& cmd, MeasureOptions& o, MethodOptions& options)
{
    options.phases.push_back(cmd.add_option("--max-phase-diff", o.max_phase_diff,
                                    "largest phase difference of a match: gray-phase fringe periods (default 0.15), "
                                    "multi-phase projector px (default 1.5 px of camera 1)")
                                 ->check(CLI::PositiveNumber));
    options.phases.push_back(cmd.add_option("--fit-points", o.fit_points, "samples of the sub-pixel fit, 3 or 5")
                                 ->capture_default_str()
                                 ->check(CLI::IsMember({ 3, 5 })));
    options.phases.push_back(
        cmd.add_flag("--interpolate", o.interpolate, "also fill columns between measured ones, by line fits"));
    options.phases.push_back(cmd.add_flag("--decoded", o.decoded,
        "cam0 and cam1 hold maps of another decoder instead of pictures: black.png, white.png and, gray-phase, "
        "period.png or period.tiff (0 to 255) and phase.tiff, or, multi-phase, phase0.tiff to phase2.tiff; "
        "phases are float TIFF, fractions of a period"));
    options.gray = {
        cmd.add_option("--anchor", o.anchor, "gray-phase: anchor length of the unwrapping, px (default: chosen)")
            ->check(CLI::Range(0, 100000)),
        cmd.add_option("--reject", o.reject, "gray-phase: reject length of the unwrapping, px (default: chosen)")
            ->check(CLI::Range(0, 100000)),
        cmd.add_option("--code-spread", o.code_spread, "gray-phase: most different gray codes in a trusted run")
            ->capture_default_str()
            ->check(CLI::Range(1, 256)),
    };
    options.multi = {
        cmd.add_option("--periods", o.periods,
               "multi-phase: three fringe periods, projector px (default: as scene.json or patterns.json "
               "tells, else 9,10,11)")
            ->delimiter(','),
        cmd.add_option("--steps", o.steps, "multi-phase: shifts a period: 4")->capture_default_str(),
    };
}

} // namespace

void add_measure(CLI::App& app, GlobalOptions& global)
{
    auto o = std::make_shared<MeasureOptions>();
    auto options = std::make_shared<MethodOptions>();
    CLI::App* cmd = app.add_subcommand("measure", "frames of both cameras -> point cloud, depth and disparity maps");
    cmd->add_option("folder", o->folder, "folder with cam0/ and cam1/ and cameras.yaml");
    cmd->add_option("--out", o->out, "folder for the results")->required();
    cmd->add_option("--method", o->method,
           "gray-phase (13 pictures of each camera), multi-phase (14) or sgbm (1); default: as scene.json or "
           "patterns.json tells, else by the number of pictures")
        ->check(CLI::IsMember({ "gray-phase", "multi-phase", "sgbm" }));
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
    add_range_options(*cmd, *o, *options);
    add_phase_options(*cmd, *o, *options);
    add_light_options(*cmd, *o, *options);
    finish_command(*cmd, global,
        "vexo measure scan --out result --depth 500:700\n"
        "  reads scan/cam0, scan/cam1, scan/cameras.yaml; writes result/cloud.ply and the pictures beside it",
        [o, options, &global] { measure(global, *o, *options); });
}

} // namespace vexo::app
