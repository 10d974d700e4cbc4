#include "host/results/drift.h"

#include "base/failure.h"
#include "host/measurement/rows.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>

#include <sys/stat.h>

namespace vexo {

namespace {

constexpr double seconds_a_day = 86400.0;

constexpr double least_days = 60.0 / seconds_a_day;

std::string date_of(std::time_t time)
{
    std::tm parts {};
    char text[32];
    if (!::gmtime_r(&time, &parts) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts) == 0) return "?";
    return text;
}

RowsOfResult read_rows(const std::string& folder)
{
    const std::string path = (std::filesystem::path(folder) / "report.json").string();
    const Json report = read_json(path);
    if (!report.contains("rows") || !report["rows"].is_object())
        throw Failure(path + ": says nothing of the rows; run vexo measure again");
    RowsOfResult r;
    r.folder = folder;
    struct stat about { };
    if (::stat(path.c_str(), &about) != 0) throw Failure(path + ": cannot be read");
    r.date = date_of(about.st_mtime);
    r.days = static_cast<double>(about.st_mtim.tv_sec) / seconds_a_day;
    const Json& rows = report["rows"];
    r.tested = rows.contains("tested") && rows["tested"] == true && rows.contains("median");
    if (!r.tested) return r;
    r.found = number_in(report, "/rows/found", path);
    r.median = number_in(report, "/rows/median", path);
    r.scatter = number_in(report, "/rows/scatter", path);
    return r;
}

/// The line through the medians over the days; Press et al., Numerical Recipes, 15.2, with the medians' standard
/// deviation from what the line leaves.
void fit_line(Drift& drift)
{
    std::vector<const RowsOfResult*> tested;
    for (const RowsOfResult& r : drift.results)
        if (r.tested) tested.push_back(&r);
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
    const double first = drift.results.front().days;
    for (RowsOfResult& r : drift.results)
        r.days -= first;
    fit_line(drift);
    const auto off = std::find_if(drift.results.begin(), drift.results.end(),
        [](const RowsOfResult& r) { return r.tested && std::abs(r.median) >= rows_warn_from; });
    if (off != drift.results.end()) drift.alarm = static_cast<std::size_t>(off - drift.results.begin());
    return drift;
}

Json to_json(const Drift& drift)
{
    Json json;
    json["results"] = Json::array();
    for (const RowsOfResult& r : drift.results) {
        json["results"].push_back(
            { { "folder", r.folder }, { "date", r.date }, { "days", r.days }, { "tested", r.tested } });
        if (!r.tested) continue;
        json["results"].back()["found"] = r.found;
        json["results"].back()["median"] = r.median;
        json["results"].back()["scatter"] = r.scatter;
    }
    if (drift.slope) json["trend"] = { { "px_a_day", *drift.slope }, { "sigma", *drift.slope_sigma } };
    if (drift.alarm)
        json["alarm"]
            = { { "folder", drift.results[*drift.alarm].folder }, { "date", drift.results[*drift.alarm].date } };
    return json;
}

} // namespace vexo
