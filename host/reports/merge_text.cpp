#include "host/reports/merge_text.h"

#include "base/text.h"

#include <algorithm>

namespace vexo {

namespace {

std::string padded(std::string text, std::size_t width)
{
    if (text.size() < width) text.insert(0, width - text.size(), ' ');
    return text;
}

std::string fixed(const Json& value, int decimals, std::size_t width)
{
    return padded(number(value.get<double>(), decimals), width);
}

std::string count(const Json& value, std::size_t width)
{
    return padded(grouped(value.get<long long>()), width);
}

std::string line_of(const Json& pair)
{
    return padded(std::to_string(pair["a"].get<int>()) + "-" + std::to_string(pair["b"].get<int>()), 5)
        + padded(percent(pair["overlap"], 1.0), 12) + count(pair["pairs"], 12) + fixed(pair["rms_sigmas"], 2, 12)
        + padded(percent(pair["beyond_6_sigma"], 1.0), 11) + fixed(pair["median_mm"], 3, 12);
}

} // namespace

std::vector<std::string> merge_lines(const Json& report)
{
    std::vector<std::string> lines { "view      points        kept   moved mm     deg  result" };
    for (const Json& v : report["views"])
        lines.push_back(count(v["view"], 4) + count(v["points"], 12) + count(v["kept"], 12)
            + fixed(v["moved"]["mm"], 3, 11) + fixed(v["moved"]["deg"], 3, 8) + "  " + v["result"].get<std::string>()
            + ", " + v["pose"].get<std::string>());
    lines.emplace_back("pair      overlap       pairs   rms sigma   beyond 6   median mm");
    constexpr std::size_t most_lines = 40;
    const Json& pairs = report["pairs"];
    for (std::size_t i = 0; i < std::min(pairs.size(), most_lines); ++i)
        lines.push_back(line_of(pairs[i]));
    if (pairs.size() > most_lines)
        lines.push_back("  and " + std::to_string(pairs.size() - most_lines) + " more, in report.json");
    lines.push_back("poses     " + report["input"]["read_as"].get<std::string>() + ", of "
        + report["input"]["poses_of"].get<std::string>());
    lines.push_back("points    " + grouped(report["points"].get<long long>()));
    lines.push_back("mesh      " + grouped(report["mesh"]["vertices"].get<long long>()) + " vertices, "
        + grouped(report["mesh"]["triangles"].get<long long>()) + " triangles");
    for (const Json& f : report["findings"]) {
        const std::string where = f["where"], advice = f["advice"];
        lines.push_back("  " + f["weight"].get<std::string>() + "  " + (where.empty() ? "" : where + ": ")
            + f["text"].get<std::string>() + (advice.empty() ? "" : "; " + advice));
    }
    return lines;
}

} // namespace vexo
