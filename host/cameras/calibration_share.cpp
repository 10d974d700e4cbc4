#include "host/cameras/calibration_share.h"

#include "base/failure.h"
#include "base/text.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace vexo {

namespace {

using Three = std::array<double, 3>;

double between(const Three& places, const Three& values, double place)
{
    const std::size_t i = place < places[1] ? 0 : 1;
    const double t = (place - places[i]) / (places[i + 1] - places[i]);
    return values[i] + t * (values[i + 1] - values[i]);
}

/// Two digits at least.
std::string fine(double value)
{
    return number(value, value < 0.001 ? 5 : value < 0.01 ? 4 : 3);
}

std::string at_distances(const Three& values, const Three& distances)
{
    std::string text;
    for (std::size_t i = 0; i < 3; ++i)
        text += (i == 0 ? "" : ", ") + fine(values[i]) + " mm at " + number(distances[i], 0) + " mm";
    return text;
}

constexpr const char* distances_of_depth[] = { "near", "middle", "far" };

constexpr const char *share_key = "calibration_share_mm", *unknown_key = "calibration_share_unknown";
constexpr const char *direction_key = "direction_share", *no_direction_key = "direction_share_unknown";

Json to_json(const CalibrationShare& share)
{
    Json json;
    for (std::size_t i = 0; i < 3; ++i)
        json[distances_of_depth[i]] = share.depth_mm[i];
    json.update({ { "distances_mm", share.distance_mm }, { "bend_mm", share.bend_mm }, { "scale", share.scale } });
    if (!share.invalid.empty()) json["invalid"] = share.invalid;
    return json;
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
    for (const Three* values : { &share.distance_mm, &share.depth_mm, &share.bend_mm, &share.scale })
        for (const double value : *values)
            if (!std::isfinite(value) || value < 0.0) return false;
    const Three& d = share.distance_mm;
    return d[0] > 0.0 && d[0] < d[1] && d[1] < d[2];
}

std::optional<CalibrationShare> StatedShare::usable() const
{
    return share && share->invalid.empty() ? share : std::nullopt;
}

const std::string& StatedShare::doubt() const
{
    return share ? share->invalid : why_unknown;
}

void add_share(Json& report, const StatedShare& stated)
{
    report[share_key] = stated.share ? to_json(*stated.share) : Json("unknown");
    if (!stated.share) report[unknown_key] = stated.why_unknown;
}

StatedShare read_share(const Json& report, const std::string& file)
{
    const std::string key = share_key;
    if (!report.contains(key) || !report[key].is_object())
        return { {}, text_in(report, unknown_key, "the report does not say it") };
    CalibrationShare share;
    const std::string where = "/" + key + "/";
    for (std::size_t i = 0; i < 3; ++i) {
        const std::string place = "/" + std::to_string(i);
        share.depth_mm[i] = number_in(report, where + distances_of_depth[i], file);
        share.distance_mm[i] = number_in(report, where + "distances_mm" + place, file);
        share.bend_mm[i] = number_in(report, where + "bend_mm" + place, file);
        share.scale[i] = number_in(report, where + "scale" + place, file);
    }
    share.invalid = text_in(report[key], "invalid", "");
    if (!is_share(share)) throw Failure(file + ": " + key + " makes no sense; measure again");
    return { share, "" };
}

void add_share(Json& report, const StatedDirection& stated)
{
    report[direction_key] = "unknown";
    if (!stated.share) {
        report[no_direction_key] = stated.why_unknown;
        return;
    }
    const DirectionShare& share = *stated.share;
    report[direction_key]
        = { { "px", share.px }, { "distances_mm", share.distance_mm }, { "across_mm", share.across_mm } };
    if (!share.invalid.empty()) report[direction_key]["invalid"] = share.invalid;
}

StatedDirection read_direction_share(const Json& report, const std::string& file)
{
    if (!report.contains(direction_key) || !report[direction_key].is_object())
        return { {}, text_in(report, no_direction_key, "nothing says it") };
    const std::string where = std::string("/") + direction_key;
    DirectionShare share;
    share.px = number_in(report, where + "/px", file);
    for (std::size_t i = 0; i < 3; ++i) {
        share.distance_mm[i] = number_in(report, where + "/distances_mm/" + std::to_string(i), file);
        share.across_mm[i] = number_in(report, where + "/across_mm/" + std::to_string(i), file);
    }
    share.invalid = text_in(report[direction_key], "invalid", "");
    return { share, "" };
}

std::string in_words(const StatedDirection& stated)
{
    if (!stated.share) return "unknown: " + stated.why_unknown;
    const DirectionShare& share = *stated.share;
    return fine(share.px) + " px of a direction, across the line of sight "
        + at_distances(share.across_mm, share.distance_mm)
        + (share.invalid.empty() ? "" : ", but not valid: " + share.invalid);
}

std::string depths_in_words(const CalibrationShare& share)
{
    return at_distances(share.depth_mm, share.distance_mm);
}

std::string in_words(const StatedShare& stated)
{
    if (!stated.share) return "unknown: " + stated.why_unknown;
    const std::string& invalid = stated.share->invalid;
    return depths_in_words(*stated.share) + (invalid.empty() ? "" : ", but not valid: " + invalid);
}

} // namespace vexo
