#include "host/reports/compare_report.h"

#include "host/reports/false_colour.h"
#include "host/results/figures.h"

#include <algorithm>

namespace vexo {

std::vector<std::string> comparison_lines(const Json& figures)
{
    std::vector<std::string> lines;
    for (FigureRow& row : figure_rows({ figures })) {
        row.name.resize(std::max<std::size_t>(row.name.size(), 38), ' ');
        lines.push_back(row.name + row.cells[0]);
    }
    return lines;
}

std::vector<std::string> acceptance_lines(const Accepted& accepted)
{
    std::vector<std::string> lines = comparison_lines(accepted.figures);
    const auto add = [&lines](const Json& figure) {
        lines.push_back(text_in(figure, "name", "") + ": " + text_in(figure, "says", ""));
    };
    const Json& acceptance = accepted.figures["acceptance"];
    for (const char* key : { "flatness", "distance", "distances" })
        if (acceptance.contains(key)) add(acceptance[key]);
    if (acceptance.contains("diameters"))
        for (const Json& diameter : acceptance["diameters"]) {
            add(diameter);
            lines.push_back("  its form: " + text_in(diameter["form"], "says", ""));
        }
    for (const Finding& finding : accepted.findings)
        lines.push_back(std::string(word_of(finding.weight)) + ": " + sentence(finding));
    return lines;
}

cv::Mat error_view(const Compared& compared)
{
    const double spread = std::max(compared.figures["error"]["rms_without_outliers"].get<double>(), 1e-4);
    const double limit = std::min(outlier_mm, 4.0 * spread);
    return false_colour(compared.errors, -limit, limit, "measured - true depth [mm]", Ramp::Signed);
}

} // namespace vexo
