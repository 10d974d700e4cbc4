#include "host/files/json_file.h"

#include "base/statistics.h"
#include "base/whole_file.h"

namespace vexo {

namespace {

constexpr std::size_t max_json_bytes = std::size_t { 1 } << 24;

} // namespace

std::string json_text(const Json& json)
{
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json quantiles_json(const std::vector<float>& values)
{
    const std::vector<double> q = quantiles(values, { 0.01, 0.5, 0.99 });
    return { { "q01", q[0] }, { "q50", q[1] }, { "q99", q[2] } };
}

Json to_json(const cv::Matx33d& matrix)
{
    return std::vector<double>(matrix.val, matrix.val + 9);
}

std::optional<Json> parse_json(const std::string& text)
{
    // The parser recurses where brackets nest; ours nest a few levels.
    constexpr int deepest = 32;
    int depth = 0;
    bool deep = false;
    const auto watch = [&](int, Json::parse_event_t event, Json&) {
        if (event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start) ++depth;
        if (event == Json::parse_event_t::object_end || event == Json::parse_event_t::array_end) --depth;
        deep = deep || depth > deepest;
        return true;
    };
    Json json = Json::parse(text, watch, false);
    if (json.is_discarded() || !json.is_object() || deep) return std::nullopt;
    return json;
}

Json read_json(const std::string& path)
{
    if (auto json = parse_json(read_bytes(path, max_json_bytes))) return *std::move(json);
    throw Failure(path + ": is not a JSON file of this program");
}

double number_in(const Json& json, const std::string& pointer, const std::string& path)
{
    const Json::json_pointer where(pointer);
    if (!json.contains(where) || !json.at(where).is_number())
        throw Failure(path + ": has no number " + pointer.substr(1) + "; run vexo measure again");
    return json.at(where).get<double>();
}

std::string text_in(const Json& json, const char* key, const std::string& otherwise)
{
    return json.contains(key) && json[key].is_string() ? json[key].get<std::string>() : otherwise;
}

} // namespace vexo
