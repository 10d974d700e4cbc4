#include "host/results/figures.h"

#include "base/failure.h"
#include "base/text.h"

#include <algorithm>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

/// One line of the table: what it is, how to find it in compare.json or acceptance.json, how to write it.
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
    { "points judged", "/acceptance/points", "", 0 },
    { "flatness, rms", "/acceptance/flatness/measured_mm", "mm", 4 },
    { "  predicted", "/acceptance/flatness/predicted_mm", "mm", 4 },
    { "  measured / predicted", "/acceptance/flatness/ratio", "x", 2 },
    { "  the same in depth", "/acceptance/flatness/in_depth_mm", "mm", 4 },
    { "diameter of ball 0, off", "/acceptance/diameters/0/deviation_mm", "mm", 4 },
    { "  predicted", "/acceptance/diameters/0/predicted_mm", "mm", 4 },
    { "  measured / predicted", "/acceptance/diameters/0/ratio", "x", 2 },
    { "  distances to it, rms", "/acceptance/diameters/0/form/measured_mm", "mm", 4 },
    { "    measured / predicted", "/acceptance/diameters/0/form/ratio", "x", 2 },
    { "diameter of ball 1, off", "/acceptance/diameters/1/deviation_mm", "mm", 4 },
    { "  predicted", "/acceptance/diameters/1/predicted_mm", "mm", 4 },
    { "  measured / predicted", "/acceptance/diameters/1/ratio", "x", 2 },
    { "  distances to it, rms", "/acceptance/diameters/1/form/measured_mm", "mm", 4 },
    { "    measured / predicted", "/acceptance/diameters/1/form/ratio", "x", 2 },
    { "distance of the balls, off", "/acceptance/distance/deviation_mm", "mm", 4 },
    { "  predicted", "/acceptance/distance/predicted_mm", "mm", 4 },
    { "  measured / predicted", "/acceptance/distance/ratio", "x", 2 },
    { "distance to the reference, rms", "/acceptance/distances/measured_mm", "mm", 4 },
    { "  predicted", "/acceptance/distances/predicted_mm", "mm", 4 },
    { "  measured / predicted", "/acceptance/distances/ratio", "x", 2 },
    { "  median", "/acceptance/distances/median_mm", "mm", 4 },
    { "  95 % below", "/acceptance/distances/p95_mm", "mm", 4 },
    { "  largest", "/acceptance/distances/largest_mm", "mm", 4 },
    { "  of the points on the reference", "/acceptance/distances/overlap", "%", 2 },
    { "outliers", "/acceptance/outliers", "%", 3 },
    { "points without sigma", "/acceptance/without_sigma", "%", 3 },
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

Json read_figures(const std::string& path)
{
    Json read = read_json(path);
    const bool any = std::any_of(
        std::begin(figures), std::end(figures), [&read](const Figure& figure) { return !cell(read, figure).empty(); });
    if (!any) throw Failure(path + ": holds none of the figures of a comparison; run vexo compare again");
    return read;
}

} // namespace

Json read_comparison(const std::string& folder)
{
    const std::string with_truth = (fs::path(folder) / "compare.json").string();
    const std::string without = (fs::path(folder) / "acceptance.json").string();
    std::error_code ignored;
    const bool judged = fs::exists(without, ignored);
    Json comparison = Json::object();
    if (!judged || fs::exists(with_truth, ignored)) comparison.update(read_figures(with_truth));
    if (judged) comparison.update(read_figures(without));
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
