#include "host/results/figures.h"

#include "base/failure.h"
#include "base/text.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

/// One line of the table: what it is, how to find it in compare.json, how to write it.
struct Figure {
    const char* name;
    const char* pointer;
    const char* unit; ///< "mm", "s", "x" (a ratio), "%" (of a share) or ""
    int decimals;
};

constexpr Figure figures[] = {
    { "points", "/error/points", "", 0 },
    { "coverage of the visible surface", "/coverage/coverage", "%", 2 },
    { "  on whole pixels of both pictures", "/coverage/common_coverage", "%", 2 },
    { "  away from its edges", "/coverage/inner_coverage", "%", 2 },
    { "rms of the depth error", "/error/rms", "mm", 4 },
    { "  without those over 1 mm", "/error/rms_without_outliers", "mm", 4 },
    { "  predicted from the noise", "/predicted_noise", "mm", 4 },
    { "  measured / predicted", "/rms_over_predicted", "x", 2 },
    { "error / sigma, rms", "/sigma/z_rms", "x", 2 },
    { "  least of the deciles of sigma", "/sigma/z_rms_least", "x", 2 },
    { "  largest of them", "/sigma/z_rms_most", "x", 2 },
    { "  beyond 6 sigma", "/sigma/beyond_6", "%", 3 },
    { "95 % of the errors below", "/error/p95", "mm", 4 },
    { "bias", "/error/bias", "mm", 4 },
    { "wrong by more than 1 mm", "/error/outliers", "%", 3 },
    { "time to decode and match", "/decode_and_match_seconds", "s", 3 },
    { "diameter of ball 0", "/balls/diameters/0", "mm", 4 },
    { "diameter of ball 1", "/balls/diameters/1", "mm", 4 },
    { "  true diameter of both", "/balls/true_diameter", "mm", 4 },
    { "distance of the balls", "/balls/distance", "mm", 4 },
    { "  true distance", "/balls/true_distance", "mm", 4 },
};

/// The value of a figure as text; empty where the result has none.
std::string cell(const Json& result, const Figure& figure)
{
    const Json::json_pointer where(figure.pointer);
    if (!result.contains(where) || !result.at(where).is_number()) return {};
    const double value = result.at(where).get<double>();
    if (figure.decimals == 0) return grouped(static_cast<long long>(value));
    const std::string unit = figure.unit;
    if (unit == "%") return number(100.0 * value, figure.decimals) + " %";
    return number(value, figure.decimals) + (unit == "x" ? "" : " " + unit);
}

} // namespace

Json read_comparison(const std::string& folder)
{
    const std::string path = (fs::path(folder) / "compare.json").string();
    Json comparison = read_json(path);
    const bool any = std::any_of(std::begin(figures), std::end(figures),
        [&comparison](const Figure& figure) { return !cell(comparison, figure).empty(); });
    if (!any) throw Failure(path + ": holds none of the figures of a comparison; run vexo compare again");
    return comparison;
}

std::vector<FigureRow> figure_rows(const std::vector<Json>& comparisons)
{
    std::vector<FigureRow> rows;
    for (const Figure& figure : figures) {
        FigureRow row { figure.name, {} };
        for (const Json& comparison : comparisons)
            row.cells.push_back(cell(comparison, figure));
        const auto empty = [](const std::string& text) { return text.empty(); };
        if (!std::all_of(row.cells.begin(), row.cells.end(), empty)) rows.push_back(row);
    }
    return rows;
}

} // namespace vexo
