#include "common.h"
#include "report.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <memory>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

/// One line of the table: what it is, how to find it in compare.json, how to write it.
struct Figure {
    const char* name;
    const char* pointer;
    const char* unit; ///< "mm", "%" (of a share) or ""
    int decimals;
};

constexpr Figure figures[] = {
    { "points", "/error/points", "", 0 },
    { "coverage of the visible surface", "/coverage/coverage", "%", 2 },
    { "coverage inside its edges", "/coverage/inner_coverage", "%", 2 },
    { "rms of the depth error", "/error/rms_without_outliers", "mm", 4 },
    { "  predicted from the noise", "/predicted_noise", "mm", 4 },
    { "95 % of the errors below", "/error/p95", "mm", 4 },
    { "bias", "/error/bias", "mm", 4 },
    { "wrong by more than 1 mm", "/error/outliers", "%", 3 },
    { "time to decode and match", "/decode_and_match_seconds", "s", 3 },
    { "diameter of ball 0", "/balls/diameters/0", "mm", 4 },
    { "diameter of ball 1", "/balls/diameters/1", "mm", 4 },
    { "  true diameter", "/balls/true_diameter", "mm", 4 },
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
    return number(value, figure.decimals) + " " + unit;
}

std::string padded(std::string text, std::size_t width, bool to_the_right)
{
    const std::string space(width > text.size() ? width - text.size() : 0, ' ');
    return to_the_right ? space + text : text + space;
}

void print_line(const GlobalOptions& global, const std::string& name, const std::vector<std::string>& cells)
{
    constexpr std::size_t name_width = 33, cell_width = 14;
    std::string line = padded(name, name_width, false);
    for (const std::string& c : cells)
        line += padded(c, std::max(cell_width, c.size() + 2), true);
    say(global, line);
}

/// Columns of one scene differ in the method, so that is told, too.
bool repeats(std::vector<std::string> names)
{
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) != names.end();
}

void table(const GlobalOptions& global, const std::vector<std::string>& folders)
{
    std::vector<Json> results;
    std::vector<std::string> names, methods;
    for (const std::string& folder : folders) {
        const std::string path = (fs::path(folder) / "compare.json").string();
        results.push_back(read_json(path));
        const bool any = std::any_of(std::begin(figures), std::end(figures),
            [&results](const Figure& figure) { return !cell(results.back(), figure).empty(); });
        if (!any) throw Failure(path + ": holds none of the figures of a comparison; run vexo compare again");
        names.push_back(text_in(results.back(), "scene", folder));
        methods.push_back(text_in(results.back(), "method", ""));
    }
    print_line(global, "", names);
    if (repeats(names)) print_line(global, "", methods);
    for (const Figure& figure : figures) {
        std::vector<std::string> cells;
        for (const Json& result : results)
            cells.push_back(cell(result, figure));
        const bool any = std::any_of(cells.begin(), cells.end(), [](const std::string& c) { return !c.empty(); });
        if (any) print_line(global, figure.name, cells);
    }
    Json all = Json::array();
    for (Json& result : results)
        all.push_back(std::move(result));
    put_json(global, all);
}

} // namespace

void add_table(CLI::App& app, GlobalOptions& global)
{
    auto folders = std::make_shared<std::vector<std::string>>();
    CLI::App* cmd = app.add_subcommand("table", "the figures of several compared results side by side");
    cmd->add_option("results", *folders, "folders that vexo compare wrote to")->required();
    finish_command(*cmd, global, "vexo table plane/result bust/result\n  prints one column for each result",
        [folders, &global] { table(global, *folders); });
}

} // namespace vexo::app
