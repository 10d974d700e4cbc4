#include "host/cameras/calibration_share.h"

#include "base/failure.h"
#include "base/text.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <locale>
#include <sstream>

namespace vexo {

namespace {

using Three = std::array<double, 3>;

struct Key {
    const char* name;
    Three CalibrationShare::*values;
};

constexpr Key keys[]
    = { { "share_distance_mm", &CalibrationShare::distance_mm }, { "share_depth_mm", &CalibrationShare::depth_mm },
          { "share_bend_mm", &CalibrationShare::bend_mm }, { "share_scale", &CalibrationShare::scale } };

double between(const Three& places, const Three& values, double place)
{
    const std::size_t i = place < places[1] ? 0 : 1;
    const double t = (place - places[i]) / (places[i + 1] - places[i]);
    return values[i] + t * (values[i + 1] - values[i]);
}

constexpr const char* distances_of_depth[] = { "near", "middle", "far" };

bool read_three(const cv::FileNode& node, Three& values)
{
    if (!node.isSeq() || node.size() != values.size()) return false;
    for (int k = 0; k < 3; ++k) {
        const cv::FileNode number = node[k];
        if (!number.isInt() && !number.isReal()) return false;
        values[static_cast<std::size_t>(k)] = static_cast<double>(number);
    }
    return true;
}

} // namespace

CalibrationShare::At CalibrationShare::at(double distance) const
{
    const double inside = std::clamp(distance, distance_mm[0], distance_mm[2]);
    const double growth = std::pow(distance / inside, 2.0);
    return { growth * between(distance_mm, depth_mm, inside), growth * between(distance_mm, bend_mm, inside),
        between(distance_mm, scale, inside) };
}

bool is_share(const CalibrationShare& share)
{
    for (const Key& key : keys)
        for (const double value : share.*key.values)
            if (!std::isfinite(value) || value < 0.0) return false;
    const Three& d = share.distance_mm;
    return d[0] > 0.0 && d[0] < d[1] && d[1] < d[2];
}

std::string share_yaml(const CalibrationShare& share)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text.precision(4);
    text.setf(std::ios::scientific);
    for (const Key& key : keys) {
        const Three& v = share.*key.values;
        text << key.name << ": [ " << v[0] << ", " << v[1] << ", " << v[2] << " ]\n";
    }
    return text.str();
}

std::optional<CalibrationShare> read_share(const cv::FileStorage& yaml, const std::string& file)
{
    CalibrationShare share;
    const auto absent = [&yaml](const Key& key) { return yaml[key.name].empty(); };
    if (std::all_of(std::begin(keys), std::end(keys), absent)) return std::nullopt;
    const auto whole = [&](const Key& key) { return read_three(yaml[key.name], share.*key.values); };
    if (!std::all_of(std::begin(keys), std::end(keys), whole) || !is_share(share))
        throw Failure(file
            + ": the keys share_distance_mm, share_depth_mm, share_bend_mm and share_scale make no sense: each holds "
              "three numbers, none negative, for distances that ascend; remove all four, or calibrate again");
    return share;
}

std::string depths_in_words(const CalibrationShare& share)
{
    std::string text;
    for (std::size_t i = 0; i < 3; ++i)
        text += (i == 0 ? "" : ", ") + number(share.depth_mm[i], 3) + " mm at " + number(share.distance_mm[i], 0)
            + " mm";
    return text;
}

Json to_json(const CalibrationShare& share)
{
    Json json;
    for (std::size_t i = 0; i < 3; ++i)
        json[distances_of_depth[i]] = share.depth_mm[i];
    json.update({ { "distances_mm", share.distance_mm }, { "bend_mm", share.bend_mm }, { "scale", share.scale } });
    return json;
}

Json to_json(const std::optional<CalibrationShare>& share)
{
    return share ? to_json(*share) : Json("unknown");
}

std::optional<CalibrationShare> read_share(const Json& report, const std::string& key, const std::string& file)
{
    if (!report.contains(key) || !report[key].is_object()) return std::nullopt;
    CalibrationShare share;
    const std::string where = "/" + key + "/";
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string place = "/" + std::to_string(i);
        share.depth_mm[i] = number_in(report, where + distances_of_depth[i], file);
        share.distance_mm[i] = number_in(report, where + "distances_mm" + place, file);
        share.bend_mm[i] = number_in(report, where + "bend_mm" + place, file);
        share.scale[i] = number_in(report, where + "scale" + place, file);
    }
    if (!is_share(share)) throw Failure(file + ": " + key + " makes no sense; measure again");
    return share;
}

} // namespace vexo
