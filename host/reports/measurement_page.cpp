#include "host/reports/measurement_page.h"

#include "base/text.h"
#include "host/reports/cause_words.h"
#include "host/reports/cloud_view.h"
#include "host/reports/html.h"
#include "host/reports/measurement_tables.h"
#include "host/reports/page_pictures.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace {

/// The capture by the last part of its path, or else the pictures of camera 0.
std::string name_of(const Capture& capture)
{
    const std::string& path = capture.files.folder.empty() ? capture.files.cam0 : capture.files.folder;
    std::filesystem::path whole(path);
    if (!whole.has_filename()) whole = whole.parent_path(); // ended by a slash
    const std::string last = whole.filename().string();
    return last.empty() || last == "." || last == ".." ? path : last;
}

/// The sentences at the top.
void judge(Page& page, const Measured& m)
{
    page.weight = heaviest(m.findings);
    const auto gravest = std::find_if(
        m.findings.begin(), m.findings.end(), [&page](const Finding& f) { return f.weight == page.weight; });
    switch (page.weight) {
    case Weight::spoils:
        page.verdict = m.cloud.count == 0 ? "Nothing was measured" : "The result cannot be trusted";
        break;
    case Weight::worse:
        page.verdict = "The measurement can be used, but it is not as good as it could be";
        break;
    case Weight::unknown:
        page.verdict = "Nothing was found that makes the measurement worse, but not everything could be tested";
        break;
    default:
        page.verdict = "The measurement is good";
    }
    if (page.weight < Weight::unknown) return;
    page.reason = sentence(*gravest);
    const std::string said = "no point was measured; ";
    if (page.reason.rfind(said, 0) == 0) page.reason.erase(0, said.size());
}

std::string title_of(const Finding& finding)
{
    return finding.name + (finding.where.empty() ? "" : ", " + finding.where);
}

/// Whether so many pixels have the cause that something should be done about it.
bool is_much(const Measured& m, Cause cause)
{
    constexpr double much = 0.05; // of the lit pixels; edges and shadows are as much on a good capture
    if (m.cloud.count == 0 && cause == likeliest_cause(m.causes)) return true;
    return cause != Cause::contrast
        && static_cast<double>(m.causes[cause]) > much * static_cast<double>(lit_pixels(m.causes));
}

std::string causes_html(const Measured& m)
{
    const auto total = static_cast<double>(m.depth.total());
    const std::vector<Label> legend = cause_legend();
    Table table { { { "cause" }, { "pixels", true }, { "share of the picture", true } }, {} };
    for (const Cause cause : causes_of(m.method())) {
        const long long count = m.causes[cause];
        if (count == 0) continue;
        const std::string advice = is_much(m, cause) ? remedy_of(cause, m.method()) : "";
        table.rows.push_back({ swatch_html(legend[static_cast<std::size_t>(cause)].colour) + escaped(words_of(cause))
                + (advice.empty() ? "" : "<p class=\"hint\">" + sentence_html("what to do: " + advice) + "</p>"),
            grouped_html(count), percent(static_cast<double>(count), total) });
    }
    return table_html(table);
}

} // namespace

std::string measurement_html(const Capture& capture, const Measured& m, const Json& report)
{
    Page page { "Measurement", name_of(capture), Weight::good, "", "", {} };
    judge(page, m);
    const Spans spans = spans_of(m);
    page.sections.push_back({ "", "", facts_html(m, report) });
    if (!m.findings.empty())
        page.sections.push_back({ "What was found",
            "Everything that is to be said of the frames, the calibration and the result, the gravest first, with what "
            "to do beside it.",
            findings_html(m.findings, title_of) });
    if (std::optional<Section> cloud = cloud_section(m, spans)) {
        page.sections.push_back(std::move(*cloud));
        page.scripts = cloud_scripts();
    }
    page.sections.push_back({ "What was measured, and what was not",
        "Each pixel that has no point has one cause, the first test that it failed. A background that the projector "
        "does "
        "not light is dark in every capture.",
        causes_html(m) });
    page.sections.push_back({ "Pictures of the result", "All are of rectified camera 0, one pixel a point.",
        result_pictures_html(m, spans) });
    const std::string recorded = capture_pictures_html(capture);
    if (!recorded.empty())
        page.sections.push_back(
            { "Pictures of the capture", "One frame of each camera, and what is in it.", recorded });
    page.sections.push_back(
        { "Figures", "As in report.json; quantiles are those of 1, 50 and 99 %.", figures_html(m, report) });
    page.sections.push_back({ "What it was made from",
        "Two results with the same hashes were made from the same files with the same parameters.",
        provenance_html(capture, report) });
    return page_html(page);
}

} // namespace vexo
