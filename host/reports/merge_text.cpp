#include "host/reports/merge_text.h"

#include "base/text.h"

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

} // namespace

std::vector<std::string> merge_lines(const Json& report)
{
    std::vector<std::string> lines { "view      points        kept   moved mm     deg  result" };
    for (const Json& v : report["views"])
        lines.push_back(count(v["view"], 4) + count(v["points"], 12) + count(v["kept"], 12)
            + fixed(v["moved"]["mm"], 3, 11) + fixed(v["moved"]["deg"], 3, 8) + "  " + v["result"].get<std::string>()
            + ", " + v["pose"].get<std::string>());
    lines.emplace_back("pair      overlap       pairs   rms sigma   beyond 6   median mm");
    for (const Json& p : report["pairs"])
        lines.push_back(padded(std::to_string(p["a"].get<int>()) + "-" + std::to_string(p["b"].get<int>()), 5)
            + padded(percent(p["overlap"], 1.0), 12) + count(p["pairs"], 12) + fixed(p["rms_sigmas"], 2, 12)
            + padded(percent(p["beyond_6_sigma"], 1.0), 11) + fixed(p["median_mm"], 3, 12));
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
