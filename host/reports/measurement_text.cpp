#include "host/reports/measurement_text.h"

#include "base/statistics.h"
#include "base/text.h"
#include "host/measurement/range_words.h"
#include "host/reports/cause_words.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace vexo {

namespace {

void add_fringes(std::vector<std::string>& lines, const Measured& m)
{
    if (m.method() == Method::gray_phase) {
        const auto& param = std::get<GrayPhaseMatchingParam>(m.record);
        lines.push_back("fringes      " + m.runs.reason);
        const auto chosen = [](bool given) { return given ? "" : ", chosen"; };
        lines.push_back("unwrapping   fringes are numbered by runs along a row in which the phase rises:");
        lines.push_back("  those longer than " + std::to_string(param.anchor_length) + " px (--anchor"
            + chosen(m.runs.anchor_given) + "); those of up to " + std::to_string(param.reject_length)
            + " px are dropped (--reject" + chosen(m.runs.reject_given) + ")");
    }
    if (m.method() != Method::multi_phase) return;
    std::string periods;
    for (const int period : m.periods())
        periods += (periods.empty() ? "" : ", ") + std::to_string(period);
    lines.push_back("fringes      periods of " + periods + " projector px");
    for (std::size_t camera = 0; camera < 2 && !is_decoded(m.record); ++camera) {
        const FringeFigures& worst = *std::min_element(m.fringes[camera].begin(), m.fringes[camera].end(),
            [](const auto& a, const auto& b) { return a.modulation < b.modulation; });
        const double loss = expected_loss(m.fringes[camera], m.periods());
        lines.push_back("  camera " + std::to_string(camera) + "   modulation " + number(worst.modulation, 1)
            + ", noise " + number(worst.grey_noise, 2) + " grey levels: " + percent(loss, 1.0)
            + " of the fringe numbers lost to noise");
    }
}

/// What the noise does to the numbers of multi-period fringes, when it does too much.
void add_noise(std::vector<std::string>& lines, const Measured& m)
{
    constexpr double much = 0.01, wrong_from_rad = 0.1, pi = 3.14159265358979323846;
    for (std::size_t camera = 0; camera < 2 && m.method() == Method::multi_phase; ++camera) {
        double noise = 0.0;
        for (const FringeFigures& figures : m.fringes[camera])
            noise = std::max(noise, 2.0 * pi * figures.phase_noise);
        const double loss = expected_loss(m.fringes[camera], m.periods());
        if (loss <= much && noise <= wrong_from_rad) continue;
        lines.push_back("warning      camera " + std::to_string(camera) + ": phase noise " + number(noise, 3)
            + " rad loses up to " + percent(loss, 1.0) + " of the fringe numbers"
            + (noise > wrong_from_rad ? ", and above 0.1 rad wrong numbers pass for right ones" : "")
            + "; use more light, or shorter periods such as 9,10,11");
    }
}

/// What phases are matched with, in one line, and where it comes from.
std::string chosen_text(const Measured& m)
{
    const bool gray = m.method() == Method::gray_phase;
    const auto text = [&](const auto& p) {
        const auto from = [](Origin origin) { return std::string(" (") + name_of(origin) + ")"; };
        std::string line = "phases may differ by " + number(p.max_phase_diff, gray ? 3 : 2)
            + (gray ? " fringes" : " projector px") + from(m.origins.max_phase_diff) + ", contrast from "
            + std::to_string(p.min_contrast) + from(m.origins.min_contrast);
        if (p.datatype == 0)
            line
                += ", modulation from " + number(m.min_modulation, 1) + " grey levels" + from(m.origins.min_modulation);
        return line + ", lines through " + std::to_string(p.fit_points) + " points" + from(m.origins.fit_points);
    };
    return gray ? text(std::get<GrayPhaseMatchingParam>(m.record)) : text(std::get<MultiPhaseMatchingParam>(m.record));
}

std::string quantile_text(const Json& q, int decimals)
{
    const auto text = [&](const char* key) { return number(q[key].get<double>(), decimals); };
    return text("q01") + " / " + text("q50") + " / " + text("q99");
}

/// How the points were refined, and what their noise is.
void add_precision(std::vector<std::string>& lines, const Measured& m, const Json& report)
{
    const Precision& p = m.precision;
    if (p.refined)
        lines.push_back("refined      " + grouped(p.samples[5]) + " points by 5 pixels of camera 1, "
            + grouped(p.samples[3]) + " by 3, " + grouped(p.samples[2]) + " by 2; " + grouped(p.samples[0])
            + " fit nowhere");
    if (p.refined)
        lines.push_back("decoded      once more, by pixels: " + grouped(p.candidates.added) + " points added, "
            + grouped(p.candidates.exchanged) + " matched otherwise, " + grouped(p.candidates.dropped)
            + " without support");
    if (p.smoothed)
        lines.push_back("smoothed     " + grouped(*p.smoothed)
            + " points by quadratics over 7 x 7 px; sigma is that of "
              "the fit, and neighbours are off alike");
    if (p.sigma.empty())
        lines.push_back("sigma        none: " + p.why_none);
    else
        lines.push_back("sigma        " + quantile_text(report["sigma"], m.unit.decimals(4)) + " " + m.unit.name
            + " (1 / 50 / 99 %), of the noise alone");
    lines.push_back(
        "calibration  its own share of the error, beside sigma: " + in_words(read_share(report, "report.json")));
}

void add_quantiles(std::vector<std::string>& lines, const Measured& m, const Json& report)
{
    lines.push_back("disparity    " + quantile_text(report["disparity"], 2) + " px (1 / 50 / 99 %)");
    lines.push_back("depth        " + quantile_text(report["depth"], m.unit.decimals(2)) + " " + m.unit.name
        + (m.unit.stated ? "" : ", assumed") + " (1 / 50 / 99 %)");
    add_precision(lines, m, report);
}

void add_findings(std::vector<std::string>& lines, const Measured& m)
{
    for (const Finding& finding : m.findings) {
        std::string label = finding.weight >= Weight::worse ? "warning"
            : finding.weight == Weight::good                ? finding.name // rows, projector
                                                            : "note";
        label.resize(13, ' ');
        lines.push_back(label + sentence(finding));
    }
}

void add_causes(std::vector<std::string>& lines, const Measured& m, double total)
{
    lines.push_back("not measured, share of the picture");
    for (const Cause cause : causes_of(m.method())) {
        if (cause == Cause::none || m.causes[cause] == 0) continue;
        std::string words = words_of(cause), count = grouped(m.causes[cause]);
        words.resize(std::max<std::size_t>(words.size(), 38), ' ');
        count.insert(0, 10 - std::min<std::size_t>(10, count.size()), ' ');
        lines.push_back("  " + words + count + "  " + percent(static_cast<double>(m.causes[cause]), total));
    }
}

} // namespace

std::string why_spoilt(const Measured& m)
{
    const auto spoils = [](const Finding& finding) { return finding.weight == Weight::spoils; };
    const auto first = std::find_if(m.findings.begin(), m.findings.end(), spoils); // causes come before what they cause
    return first == m.findings.end()
        ? ""
        : "the result cannot be trusted: " + sentence(*first) + "; --accept-verdict takes it all the same";
}

std::string why_nothing(const Measured& m)
{
    for (const Finding& finding : m.findings) // causes come before what they cause
        if (finding.weight == Weight::spoils)
            return (finding.name == "coverage" ? "" : "no point was measured; ") + sentence(finding);
    return "no point was measured";
}

std::vector<std::string> summary_lines(const Measured& m, const Json& report)
{
    std::vector<std::string> lines;
    const auto total = static_cast<double>(m.depth.total());
    lines.push_back("method       " + std::string(name_of(m.method())) + " (by " + m.choice.reason + ")");
    lines.push_back(
        "rig          baseline " + m.unit.length(m.baseline, 2) + ", rectified f " + number(m.geometry.f, 1) + " px");
    add_fringes(lines, m);
    if (m.method() != Method::sgbm) lines.push_back("limits       " + chosen_text(m));
    const auto [low, high] = disparity_limits(m.record);
    lines.push_back("range        disparity " + range_text(m, low, high) + ", " + m.range_origin);
    lines.push_back("measured     " + percent(m.cloud.count, static_cast<double>(lit_pixels(m.causes))) + " of the "
        + (m.method() == Method::sgbm ? "pixels in the range of both cameras" : "lit pixels") + ": "
        + grouped(m.cloud.count) + ", " + percent(m.cloud.count, total) + " of the picture's "
        + grouped(static_cast<long long>(total)));
    add_causes(lines, m, total);
    if (m.cloud.count > 0) add_quantiles(lines, m, report);
    const auto lost = static_cast<double>(m.causes[Cause::disparity]);
    if (lost > 0.01 * (m.cloud.count + lost))
        lines.push_back("note         " + percent(lost, m.cloud.count + lost) + " of the matches lie outside "
            + limits_text(m) + "; without limits they span " + measured_range(m) + "; see --disparity and --depth");
    if (static_cast<double>(m.weak.count) > 0.01 * m.cloud.count)
        lines.push_back("note         " + grouped(m.weak.count) + " pixels are left out by --min-contrast "
            + std::to_string(light_limits(m.record).min_contrast) + " alone; the noise allows --min-contrast "
            + std::to_string(m.weak.contrast));
    add_noise(lines, m);
    add_findings(lines, m);
    return lines;
}

} // namespace vexo
