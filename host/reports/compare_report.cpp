#include "host/reports/compare_report.h"

#include "base/text.h"
#include "host/reports/false_colour.h"

#include <algorithm>

namespace vexo {

namespace {

void add_row(std::vector<std::string>& lines, std::string what, const std::string& value)
{
    what.resize(std::max<std::size_t>(what.size(), 38), ' ');
    lines.push_back(what + value);
}

} // namespace

std::vector<std::string> comparison_lines(const Json& c)
{
    std::vector<std::string> lines;
    const auto get = [&c](const char* pointer) { return c.at(Json::json_pointer(pointer)).get<double>(); };
    const auto mm = [&](const char* pointer) { return number(get(pointer), 4) + " mm"; };
    add_row(lines, "points", grouped(c["error"]["points"].get<long long>()));
    add_row(lines, "coverage of the visible surface", percent(get("/coverage/coverage"), 1.0));
    add_row(lines, "  on whole pixels of both pictures", percent(get("/coverage/common_coverage"), 1.0));
    add_row(lines, "  " + std::to_string(inner_margin_px) + " px inside its edges",
        percent(get("/coverage/inner_coverage"), 1.0));
    add_row(lines, "rms of the depth error", mm("/error/rms"));
    add_row(lines, "  without outliers", mm("/error/rms_without_outliers"));
    if (c.contains("predicted_noise"))
        add_row(lines, "  predicted from the noise",
            mm("/predicted_noise") + " (measured / predicted " + number(get("/rms_over_predicted"), 2) + ")");
    add_row(lines, "95 % of the errors below", mm("/error/p95"));
    add_row(lines, "bias", mm("/error/bias"));
    add_row(lines, "wrong by more than 1 mm", percent(get("/error/outliers"), 1.0));
    if (!c.contains("balls")) return lines;
    const auto fitted = [&](const char* pointer, const char* truth) {
        const double off = get(pointer) - get(truth);
        return mm(pointer) + " (true " + number(get(truth), 4) + ", " + (off < 0 ? "" : "+") + number(off, 4) + ")";
    };
    add_row(lines, "diameter of ball 0", fitted("/balls/diameters/0", "/balls/true_diameter"));
    add_row(lines, "diameter of ball 1", fitted("/balls/diameters/1", "/balls/true_diameter"));
    add_row(lines, "distance of the balls", fitted("/balls/distance", "/balls/true_distance"));
    return lines;
}

cv::Mat error_view(const Compared& compared)
{
    const double spread = std::max(compared.figures["error"]["rms_without_outliers"].get<double>(), 1e-4);
    const double limit = std::min(outlier_mm, 4.0 * spread);
    return false_colour(compared.errors, -limit, limit, "measured - true depth [mm]");
}

} // namespace vexo
