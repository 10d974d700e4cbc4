#include "host/captures/gamma.h"

#include "base/failure.h"
#include "host/files/json_file.h"

#include <opencv2/core.hpp>

#include <cmath>

namespace vexo {

GammaTable undo_gamma(double gamma)
{
    GammaTable table { gamma, {} };
    for (std::size_t i = 0; i < table.grey.size(); ++i)
        table.grey[i] = cv::saturate_cast<unsigned char>(255.0 * std::pow(static_cast<double>(i) / 255.0, 1.0 / gamma));
    return table;
}

std::string gamma_json(const GammaTable& table)
{
    return Json { { "gamma", table.gamma }, { "table", table.grey } }.dump() + "\n";
}

GammaTable load_gamma_table(const std::string& path)
{
    const Json json = read_json(path);
    const auto bad = [&path] { return Failure(path + ": is not a gamma table; vexo check writes gamma_table.json"); };
    if (!json.is_object() || !json.contains("table") || !json["table"].is_array()) throw bad();
    GammaTable table { number_in(json, "/gamma", path), {} };
    if (json["table"].size() != table.grey.size()) throw bad();
    int before = 0;
    for (std::size_t i = 0; i < table.grey.size(); ++i) {
        const Json& entry = json["table"][i];
        if (!entry.is_number_integer() || entry < before || entry > 255) throw bad();
        before = entry.get<int>();
        table.grey[i] = static_cast<unsigned char>(before);
    }
    return table;
}

} // namespace vexo
