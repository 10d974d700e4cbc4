#include "commands.h"
#include "host/results/figures.h"
#include "options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

namespace vexo::app {

namespace {

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

/// Columns of one scene differ in the method, so that is said, too.
bool repeats(std::vector<std::string> names)
{
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) != names.end();
}

void run(const GlobalOptions& global, const std::vector<std::string>& folders)
{
    std::vector<Json> results;
    std::vector<std::string> names, methods;
    for (const std::string& folder : folders) {
        results.push_back(read_comparison(folder));
        names.push_back(text_in(results.back(), "scene", folder));
        methods.push_back(text_in(results.back(), "method", ""));
    }
    print_line(global, "", names);
    if (repeats(names)) print_line(global, "", methods);
    for (const FigureRow& row : figure_rows(results))
        print_line(global, row.name, row.cells);
    put_json(global, results);
}

} // namespace

void add_table(CLI::App& app, GlobalOptions& global)
{
    auto folders = std::make_shared<std::vector<std::string>>();
    CLI::App* cmd = app.add_subcommand("table", "the figures of several compared results side by side");
    cmd->add_option("results", *folders, "folders that vexo compare wrote to")->required();
    finish_command(*cmd, global, "vexo table plane/result bust/result\n  prints one column for each result",
        [folders, &global] { run(global, *folders); });
}

} // namespace vexo::app
