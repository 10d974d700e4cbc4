#include "host/results/drift.h"

#include "base/failure.h"
#include "host/measurement/rows.h"
#include "host/verdict/finding.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>

#include <sys/stat.h>

namespace vexo {

namespace {

constexpr double seconds_a_day = 86400.0;

constexpr double least_days = 60.0 / seconds_a_day;

/// @param days  since 1970
std::string date_of(double days)
{
    const auto time = static_cast<std::time_t>(days * seconds_a_day);
    std::tm parts {};
    char text[32];
    if (!::gmtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts) == 0) return "?";
    return text;
}

/// When the report was made: as it says ("2026-11-26T05:33:21Z"), else when its file was written.
std::time_t time_of(const Json& report, const std::string& path)
{
    std::tm parts {};
    const std::string said = text_in(report, "time", "");
    if (!said.empty()) {
        const char* const end = ::strptime(said.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
        if (end == nullptr || *end != 0)
            throw Failure(path + ": time: " + said + " is none such as 2026-11-26T05:33:21Z");
        return ::timegm(&parts);
    }
    struct stat about { };
    if (::stat(path.c_str(), &about) != 0) throw Failure(path + ": cannot be read");
    return about.st_mtime;
}

/// Whether the result's own finding warned of its rows.
bool warned_of(const Json& report)
{
    if (!report.contains("findings") || !report["findings"].is_array()) return false;
    return std::any_of(report["findings"].begin(), report["findings"].end(), [](const Json& finding) {
        const std::string weight = finding.is_object() ? text_in(finding, "weight", "") : "";
        return (weight == word_of(Weight::worse) || weight == word_of(Weight::spoils))
            && text_in(finding, "name", "") == "rows";
    });
}

RowsOfResult read_rows(const std::string& folder)
{
    const std::string path = (std::filesystem::path(folder) / "report.json").string();
    const Json report = read_json(path);
    if (!report.contains("rows") || !report["rows"].is_object())
        throw Failure(path + ": says nothing of the rows; run vexo measure again");
    RowsOfResult r;
    r.folder = folder;
    const std::time_t time = time_of(report, path);
    r.date = date_of(static_cast<double>(time) / seconds_a_day);
    r.days = static_cast<double>(time) / seconds_a_day;
    r.off = warned_of(report);
    const Json& rows = report["rows"];
    r.tested = rows.contains("tested") && rows["tested"] == true;
    if (!r.tested) return r;
    r.found = rows.contains("found") ? number_in(report, "/rows/found", path) : 0;
    if (r.found == 0) return r;
    r.median = number_in(report, "/rows/median", path);
    r.scatter = number_in(report, "/rows/scatter", path);
    r.off = r.off || std::abs(r.median) >= rows_warn_from;
    return r;
}

/// The line through the medians over the days; Press et al., Numerical Recipes, 15.2, with the medians' standard
/// deviation from what the line leaves.
void fit_line(Drift& drift)
{
    std::vector<const RowsOfResult*> tested;
    for (const RowsOfResult& r : drift.results)
        if (r.tested && r.found > 0) tested.push_back(&r);
    const auto n = static_cast<double>(tested.size());
    if (tested.size() < 3 || tested.back()->days - tested.front()->days < least_days) return;
    double day = 0, level = 0, spread = 0, mixed = 0, rest = 0;
    for (const RowsOfResult* r : tested) {
        day += r->days / n;
        level += r->median / n;
    }
    for (const RowsOfResult* r : tested) {
        spread += (r->days - day) * (r->days - day);
        mixed += (r->days - day) * (r->median - level);
    }
    const double slope = mixed / spread;
    for (const RowsOfResult* r : tested)
        rest += std::pow(r->median - level - slope * (r->days - day), 2);
    drift.slope = slope;
    drift.slope_sigma = std::sqrt(rest / (n - 2) / spread);
    constexpr double most_days = 3650;
    const double last = tested.back()->days, now = level + slope * (last - day);
    if (std::abs(slope) <= 3 * *drift.slope_sigma || std::abs(now) >= rows_warn_from) return;
    const double left = ((slope > 0 ? rows_warn_from : -rows_warn_from) - now) / slope;
    if (left < most_days) drift.expected = date_of(drift.first_day + last + left);
}

} // namespace

Drift find_drift(const std::vector<std::string>& folders)
{
    Drift drift;
    for (const std::string& folder : folders)
        drift.results.push_back(read_rows(folder));
    std::stable_sort(drift.results.begin(), drift.results.end(),
        [](const RowsOfResult& one, const RowsOfResult& other) { return one.days < other.days; });
    if (drift.results.empty()) return drift;
    drift.first_day = drift.results.front().days;
    for (RowsOfResult& r : drift.results)
        r.days -= drift.first_day;
    fit_line(drift);
    const auto off
        = std::find_if(drift.results.begin(), drift.results.end(), [](const RowsOfResult& r) { return r.off; });
    if (off != drift.results.end()) drift.alarm = static_cast<std::size_t>(off - drift.results.begin());
    return drift;
}

Json to_json(const Drift& drift)
{
    Json json;
    json["results"] = Json::array();
    for (const RowsOfResult& r : drift.results) {
        json["results"].push_back({ { "folder", r.folder }, { "date", r.date }, { "days", r.days },
            { "tested", r.tested }, { "off", r.off } });
        if (!r.tested) continue;
        json["results"].back()["found"] = r.found;
        json["results"].back()["median"] = r.median;
        json["results"].back()["scatter"] = r.scatter;
    }
    if (drift.slope) json["trend"] = { { "px_a_day", *drift.slope }, { "sigma", *drift.slope_sigma } };
    if (!drift.expected.empty()) json["expected"] = drift.expected;
    if (drift.alarm)
        json["alarm"]
            = { { "folder", drift.results[*drift.alarm].folder }, { "date", drift.results[*drift.alarm].date } };
    return json;
}

} // namespace vexo
