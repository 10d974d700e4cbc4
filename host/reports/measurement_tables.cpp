#include "host/reports/measurement_tables.h"

#include "base/text.h"
#include "host/cameras/calibration_share.h"
#include "host/reports/html.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

const char* const dash = "&ndash;";

/// A number of the report; a dash where it is none.
std::string figure(const Json& report, const std::string& pointer, int decimals)
{
    const Json::json_pointer where(pointer);
    if (!report.contains(where) || !report.at(where).is_number()) return dash;
    const double value = report.at(where).get<double>();
    return std::isfinite(value) ? number(value, decimals) : dash;
}

std::string quantiles(const Json& report, const std::string& pointer, int decimals)
{
    return figure(report, pointer + "/q01", decimals) + " / " + figure(report, pointer + "/q50", decimals) + " / "
        + figure(report, pointer + "/q99", decimals);
}

std::string fact(const std::string& what, const std::string& value, const std::string& more)
{
    return "<div><dt>" + what + "</dt><dd>" + value + "<small>" + more + "</small></dd></div>\n";
}

std::string points_fact(const Measured& m)
{
    const char* const of
        = m.method() == Method::sgbm ? " of the pixels in the range of both cameras" : " of the lit pixels";
    return fact(
        "Points", grouped_html(m.cloud.count), percent(m.cloud.count, static_cast<double>(lit_pixels(m.causes))) + of);
}

std::string sigma_fact(const Measured& m, const Json& report)
{
    if (m.precision.sigma.empty()) return fact("Sigma", "none", sentence_html(m.precision.why_none));
    const int decimals = m.unit.decimals(4);
    return fact("Sigma, median", figure(report, "/sigma/q50", decimals) + " " + m.unit.name,
        figure(report, "/sigma/q01", decimals) + " to " + figure(report, "/sigma/q99", decimals)
            + ", of the noise alone");
}

/// What the cameras themselves are off by, beside sigma.
std::string calibration_fact(const Json& report)
{
    const StatedShare stated = read_share(report, "report.json");
    const std::string what = "Calibration's share";
    if (!stated.share) return fact(what, "not known", sentence_html(stated.why_unknown) + " Not in sigma");
    const std::string& invalid = stated.share->invalid;
    return fact(what, number(stated.share->depth_mm[1], 4) + " mm",
        depths_in_words(*stated.share) + "; not in sigma"
            + (invalid.empty() ? "" : ". <strong>Not valid:</strong> " + sentence_html(invalid)));
}

std::string rows_fact(const RowError& rows)
{
    if (!rows.tested() || rows.found == 0.0)
        return fact("Row error", "not known", "the surface has too little texture");
    return fact("Row error, median", number(rows.median, 2) + " px", "scatter " + number(rows.scatter, 2) + " px");
}

using Rows = std::vector<std::vector<std::string>>;

std::string key_value_html(const Rows& rows)
{
    Rows marked = rows;
    for (std::vector<std::string>& row : marked)
        row[0] = "<span class=\"key\">" + row[0] + "</span>";
    return table_html({ {}, marked });
}

void add_precision(Rows& rows, const Measured& m, const Json& report)
{
    const Precision& p = m.precision;
    if (p.refined)
        rows.push_back({ "refined by 5, 3, 2 pixels of camera 1",
            grouped_html(p.samples[5]) + ", " + grouped_html(p.samples[3]) + ", " + grouped_html(p.samples[2])
                + " points; " + grouped_html(p.samples[0]) + " fit nowhere" });
    if (p.smoothed)
        rows.push_back({ "smoothed by quadratics over 7 x 7 px",
            grouped_html(*p.smoothed) + " points; sigma is that of the fit, and neighbours are off alike" });
    if (p.sigma.empty()) return;
    rows.push_back({ "sigma of the depth", quantiles(report, "/sigma", m.unit.decimals(4)) + " " + m.unit.name });
    rows.push_back({ "points without sigma",
        percent(report["sigma"]["without"].get<double>(), 1.0) + ", as a sample of their line is missing" });
    for (std::size_t camera = 0; camera < 2; ++camera)
        rows.push_back({ "noise of camera " + std::to_string(camera),
            "variance " + number(p.noise[camera].c0, 3) + " + " + number(p.noise[camera].k, 5)
                + " A at a grey value A, grey levels&sup2;" });
}

std::string rows_text(const RowError& rows)
{
    std::string text = grouped_html(rows.textured) + " of " + grouped_html(rows.windows) + " windows have texture";
    if (rows.found > 0)
        text += "; " + percent(rows.found, 1.0) + " of these are found near their row, by median "
            + number(rows.median, 2) + " px off, scatter " + number(rows.scatter, 2)
            + " px; over the picture the error runs by " + number(rows.b, 2) + " px from left to right and "
            + number(rows.c, 2) + " px from top to bottom";
    return text;
}

std::string fringes_html(const Measured& m)
{
    Table table { { { "fringes" }, { "length in the picture, px", true }, { "amplitude, grey levels", true },
                      { "noise, grey levels", true }, { "phase noise, periods", true } },
        {} };
    const std::vector<int> periods = m.periods();
    for (std::size_t camera = 0; camera < 2; ++camera)
        for (std::size_t f = 0; f < m.fringes[camera].size(); ++f) {
            const FringeFigures& figures = m.fringes[camera][f];
            table.rows.push_back({ "camera " + std::to_string(camera)
                    + (f < periods.size() ? ", " + std::to_string(periods[f]) + " projector px" : ""),
                number(figures.length_px, 1), number(figures.modulation, 1), number(figures.grey_noise, 2),
                number(figures.phase_noise, 4) });
        }
    return table.rows.empty() ? "" : table_html(table);
}

std::string text_of(const Json& json)
{
    return escaped(
        json.is_string() ? json.get<std::string>() : json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string code(const std::string& html)
{
    return "<code>" + html + "</code>";
}

/// Names and hashes of files, to be opened.
std::string files_html(const std::string& what, const Json& files)
{
    Table table { { { "file" }, { "SHA-256" } }, {} };
    for (const Json& file : files)
        table.rows.push_back({ code(text_of(file["file"])), code(text_of(file["sha256"])) });
    return "<details><summary>" + what + "</summary>" + table_html(table) + "</details>\n";
}

} // namespace

std::string facts_html(const Measured& m, const Json& report)
{
    std::string html = "<dl class=\"facts\">\n" + points_fact(m);
    if (m.cloud.count > 0) {
        const int decimals = m.unit.decimals(1);
        html += fact("Depth, median", figure(report, "/depth/q50", decimals) + " " + m.unit.name,
                    figure(report, "/depth/q01", decimals) + " to " + figure(report, "/depth/q99", decimals)
                        + " (1 to 99&nbsp;%)" + (m.unit.stated ? "" : "; the unit is assumed"))
            + sigma_fact(m, report) + calibration_fact(report) + rows_fact(m.rows);
    }
    return html + "</dl>\n";
}

std::string figures_html(const Measured& m, const Json& report)
{
    const auto [low, high] = disparity_limits(m.record);
    Rows rows { { "method", std::string(name_of(m.method())) + ", recognised by " + escaped(m.choice.reason) },
        { "points",
            grouped_html(m.cloud.count) + ": " + percent(m.cloud.count, static_cast<double>(m.depth.total()))
                + " of the picture of " + size_text(m.depth.cols, m.depth.rows) + " px" },
        { "rig",
            "baseline " + m.unit.length(m.baseline, 2) + ", rectified focal length " + number(m.geometry.f, 1)
                + " px" },
        { "accepted disparities", number(low, 0) + " to " + number(high, 0) + " px, " + escaped(m.range_origin) } };
    if (m.cloud.count > 0) {
        rows.push_back({ "depth", quantiles(report, "/depth", m.unit.decimals(2)) + " " + m.unit.name });
        rows.push_back({ "disparity", quantiles(report, "/disparity", 2) + " px" });
        add_precision(rows, m, report);
        rows.push_back({ "rows", rows_text(m.rows) });
    }
    if (m.projector.tested())
        rows.push_back({ "one projector",
            "fits " + grouped_html(m.projector.points) + " points within " + number(m.projector.scatter, 2) + " px, "
                + percent(m.projector.outside, 1.0) + " lie beyond 1 px" });
    return key_value_html(rows) + fringes_html(m);
}

std::string provenance_html(const Capture& capture, const Json& report)
{
    const Json &input = report["input"], &made_from = report["made_from"];
    Rows rows { { "program", text_of(report["program"]) }, { "time", text_of(report["time"]) + " (UTC)" } };
    if (!capture.files.folder.empty()) rows.push_back({ "capture", code(escaped(capture.files.folder)) });
    rows.push_back({ "camera 0", code(text_of(input["cam0"])) });
    rows.push_back({ "camera 1", code(text_of(input["cam1"])) });
    for (const Json& file : input["calib"])
        rows.push_back({ "calibration", code(text_of(file)) });
    if (report["calibration_verdict"].is_string())
        rows.push_back({ "calibration found", text_of(report["calibration_verdict"]) });
    rows.push_back(
        { "unit", text_of(report["unit"]) + (report["unit_stated"] == true ? "" : ", assumed: nothing says it") });
    if (input.contains("exposure_ms")) rows.push_back({ "exposure", text_of(input["exposure_ms"]) + " ms" });
    rows.push_back({ "hash of the parameters", code(text_of(made_from["parameters"])) });
    Rows parameters;
    for (const auto& [key, value] : report["parameters"].items())
        parameters.push_back({ escaped(key), code(text_of(value)) });
    return key_value_html(rows) + "<details><summary>Parameters</summary>" + key_value_html(parameters) + "</details>\n"
        + files_html("Files of camera 0", made_from["cam0"]) + files_html("Files of camera 1", made_from["cam1"])
        + files_html("Files of the calibration", made_from["calibration"]);
}

} // namespace vexo
