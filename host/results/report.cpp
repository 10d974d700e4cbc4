#include "host/results/report.h"

#include "base/parallel.h"
#include "base/statistics.h"
#include "host/results/provenance.h"
#include "vexo/version.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace vexo {

namespace {

/// Counts up when a key of report.json changes its meaning or goes.
constexpr int report_schema = 1;

/// ISO 8601, UTC.
std::string now()
{
    const std::time_t time = std::time(nullptr);
    std::tm parts {};
    char text[32];
    if (!::gmtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) return "";
    return text;
}

Json to_json(const FringeFigures& f)
{
    return { { "length_px", f.length_px }, { "modulation", f.modulation }, { "grey_noise", f.grey_noise },
        { "phase_noise", f.phase_noise }, { "share_in_longer_runs", f.share_in_longer_runs } };
}

Json to_json(const Stereo& stereo)
{
    const StereoCameraParam& param = stereo.param;
    const Geometry& geometry = stereo.geometry;
    int width = 0, height = 0;
    stereo.camera->get_outimage_size(&width, &height);
    Json camera { { "input_size", { param.inp_width, param.inp_height } }, { "output_size", { width, height } },
        { "alpha", param.alpha }, { "flags", param.flags }, { "baseline", stereo.camera->get_baseline_length() },
        { "f", geometry.f }, { "cx", geometry.cx }, { "cy", geometry.cy },
        { "disparity_at_infinity", -geometry.offset / geometry.slope } };
    if (stereo.rectifying_rotation) camera["rectifying_rotation"] = vexo::to_json(*stereo.rectifying_rotation);
    return camera;
}

Json describe_fringes(const Measured& m, std::size_t camera)
{
    const std::vector<FringeFigures>& figures = m.fringes[camera];
    if (m.method() == Method::gray_phase) return to_json(figures[0]);
    Json periods = Json::array();
    for (std::size_t f = 0; f < figures.size(); ++f) {
        periods.push_back(to_json(figures[f]));
        periods.back()["period"] = m.periods()[f];
    }
    return { { "periods", periods }, { "expected_loss", expected_loss(figures, m.periods()) } };
}

Json to_json(const RowError& e)
{
    Json rows { { "windows", e.windows }, { "textured", e.textured }, { "tested", e.tested() } };
    if (e.textured == 0) return rows;
    rows["found"] = e.found;
    if (e.found == 0) return rows;
    rows["median"] = e.median;
    rows["scatter"] = e.scatter;
    rows["middle"] = e.a;
    rows["left_to_right"] = e.b;
    rows["upper_to_lower"] = e.c;
    return rows;
}

/// Sigma is the noise's share alone; what the calibration is off by is not in it.
void add_precision(const Measured& m, Json& report)
{
    const Precision& p = m.precision;
    report["refinement"] = { { "made", p.refined }, { "samples_5", p.samples[5] }, { "samples_3", p.samples[3] },
        { "samples_2", p.samples[2] }, { "dropped", p.samples[0] }, { "in_gaps", p.in_gaps } };
    report["second_decoding"] = { { "added", p.candidates.added }, { "exchanged", p.candidates.exchanged },
        { "dropped", p.candidates.dropped } };
    report["smoothing"] = { { "points", p.smoothed.value_or(0) } };
    report["sigma"] = { { "why_none", p.why_none } };
    if (p.sigma.empty()) return;
    const std::vector<float> values = finite_values(p.sigma);
    report["sigma"].update(quantiles_json(values));
    report["sigma"]["without"] = 1.0 - static_cast<double>(values.size()) / std::max(m.cloud.count, 1);
    for (std::size_t camera = 0; camera < 2; ++camera)
        report["sigma"]["noise"][camera == 0 ? "cam0" : "cam1"]
            = { { "c0", p.noise[camera].c0 }, { "k", p.noise[camera].k } };
}

void add_findings(const Measured& m, Json& report)
{
    report["verdict"] = word_of(heaviest(m.findings));
    report["findings"] = Json::array();
    for (const Finding& finding : m.findings)
        report["findings"].push_back(vexo::to_json(finding));
    report["rows"] = to_json(m.rows);
    const ProjectorFit& p = m.projector;
    report["projector"] = { { "points", p.points }, { "tested", p.tested() } };
    if (p.tested()) report["projector"].update({ { "scatter", p.scatter }, { "outside", p.outside } });
}

/// Quantiles of depth and disparity, and the disparities that were accepted.
void add_ranges(const Measured& m, Json& report)
{
    std::array<Json, 3> spread;
    in_parallel(spread.size(), [&](std::size_t i) {
        spread[i] = quantiles_json(i == 2 ? m.any_disparity : finite_values(i == 0 ? m.depth : m.disparity));
    });
    report["depth"] = spread[0];
    report["disparity"] = spread[1];
    const auto [low, high] = disparity_limits(m.record);
    report["disparity"]["accepted"] = { { "low", low }, { "high", high }, { "from", m.range_origin } };
    if (m.method() == Method::sgbm) return;
    report["disparity"]["q01_without_limits"] = spread[2]["q01"];
    report["disparity"]["q99_without_limits"] = spread[2]["q99"];
}

/// Hashes of the files that frames were read from, as they were then; frames made of others have none. Those of decoded
/// maps are found now.
Json hashes_of_frames(const std::vector<std::string>& paths, const std::vector<std::string>& hashes)
{
    if (hashes.empty()) return hashes_of(paths);
    Json files = Json::array();
    for (std::size_t i = 0; i < paths.size(); ++i)
        if (!paths[i].empty()) files.push_back(named_hash(paths[i], hashes[i]));
    return files;
}

/// The same of a camera's merged exposures, each file named with its folder.
Json hashes_of_frames(const Exposures& exposures, std::size_t camera)
{
    Json all = Json::array();
    for (const Exposure& e : exposures.sets)
        for (Json& file : hashes_of_frames(e.paths[camera], e.hashes[camera])) {
            file["file"] = e.folder + "/" + file["file"].get<std::string>();
            all.push_back(file);
        }
    return all;
}

void add_exposures(const Exposures& exposures, Json& report)
{
    Json& made_from = report["made_from"];
    made_from["cam0"] = hashes_of_frames(exposures, 0);
    made_from["cam1"] = hashes_of_frames(exposures, 1);
    std::vector<std::string> manifests;
    Json& described = report["exposures"]
        = { { "ordered_by", exposures.ordered_by_time ? "exposure_ms" : "frames" }, { "sets", Json::array() } };
    for (const Exposure& e : exposures.sets) {
        described["sets"].push_back({ { "folder", e.folder }, { "exposure_ms", e.ms ? Json(*e.ms) : Json() },
            { "factor", e.factor }, { "share_cam0", e.share[0] }, { "share_cam1", e.share[1] } });
        if (!e.manifest.empty()) manifests.push_back(e.manifest);
    }
    made_from["capture"] = hashes_of(manifests);
}

} // namespace

Json make_report(
    const Capture& capture, const Stereo& stereo, const MeasureRequest& request, const Measured& m, double read_seconds)
{
    Json report;
    report["schema"] = report_schema;
    report["program"] = "vexo " VEXO_VERSION_STRING;
    report["time"] = now();
    report["method"] = name_of(m.method());
    report["recognised_by"] = m.choice.reason;
    report["input"] = { { "calib", stereo.files }, { "cam0", capture.files.cam0 }, { "cam1", capture.files.cam1 },
        { "decoded", capture.files.decoded }, { "bits", capture.frames.bits } };
    report["camera"] = to_json(stereo);
    report["parameters"] = to_json(m.record);
    report["parameters"]["min_modulation"] = m.min_modulation;
    report["parameters"]["interpolate"] = request.interpolate;
    report["parameters"]["refine"] = m.precision.refined;
    report["parameters"]["clean"] = name_of(request.cleaning);
    report["parameters"]["smooth"] = m.precision.smoothed.has_value();
    const FrameSet& frames = capture.frames;
    report["made_from"] = { { "cam0", hashes_of_frames(frames.paths[0], frames.hashes[0]) },
        { "cam1", hashes_of_frames(frames.paths[1], frames.hashes[1]) }, { "calibration", hashes_of(stereo.files) },
        { "parameters", hash_of(report["parameters"]) } };
    if (capture.manifest && capture.manifest->exposure_ms && !capture.exposures)
        report["input"]["exposure_ms"] = *capture.manifest->exposure_ms;
    if (capture.manifest) report["made_from"]["capture"] = hashes_of({ capture.manifest->path });
    if (capture.exposures) add_exposures(*capture.exposures, report);
    report["unit"] = stereo.notes.unit.name;
    report["unit_stated"] = stereo.notes.unit.stated;
    report["calibration_verdict"] = stereo.notes.verdict.empty() ? Json() : Json(stereo.notes.verdict);
    add_share(report, stereo.share);
    if (!m.fringes[0].empty())
        report["fringes"] = { { "cam0", describe_fringes(m, 0) }, { "cam1", describe_fringes(m, 1) } };
    if (m.method() != Method::sgbm)
        report["chosen"] = { { "max_phase_diff", name_of(m.origins.max_phase_diff) },
            { "min_contrast", name_of(m.origins.min_contrast) },
            { "min_modulation", name_of(m.origins.min_modulation) }, { "fit_points", name_of(m.origins.fit_points) } };
    if (m.method() == Method::gray_phase)
        report["run_lengths"] = { { "anchor_chosen", !m.runs.anchor_given }, { "reject_chosen", !m.runs.reject_given },
            { "reason", m.runs.reason } };
    const auto total = static_cast<double>(m.depth.total());
    const long long lit = lit_pixels(m.causes);
    report["pixels"] = { { "total", m.depth.total() }, { "lit", lit }, { "measured", m.cloud.count },
        { "share_of_lit", lit > 0 ? m.cloud.count / static_cast<double>(lit) : 0.0 },
        { "share", m.cloud.count / total }, { "not_measured", to_json(m.causes, m.method()) } };
    add_ranges(m, report);
    add_precision(m, report);
    add_findings(m, report);
    report["seconds"] = { { "set_frames", m.times.frames }, { "decode_and_rectify", m.times.decode },
        { "match_and_triangulate", m.times.triangulate }, { "read", read_seconds + m.rectify_seconds },
        { "first_pass", m.first_pass_seconds }, { "causes", m.causes_seconds }, { "precision", m.precision.seconds },
        { "checks", m.checks_seconds } };
    return report;
}

} // namespace vexo
