#include "host/accuracy/expectation.h"

#include <cmath>

namespace vexo {

namespace {

constexpr double least_ratio = 0.8, most_ratio = 1.25;
constexpr double chance = 2.0; // one deviation in twenty is larger than so many standard deviations

std::string more_than_predicted(bool share_known)
{
    return "more than predicted: the body is not that exact, the calibration is off"
        + std::string(share_known ? " by more than its share" : ", whose share is unknown") + ", or points are wrong";
}

/// An rms over many points comes out as it is predicted.
std::string words_of_rms(double ratio, bool share_known)
{
    if (ratio > most_ratio) return more_than_predicted(share_known);
    return ratio < least_ratio ? "less than predicted: sigma is too careful here, or the points were smoothed"
                               : "as expected";
}

/// A single deviation is as small as chance will have it.
std::string words_of_one(double ratio, bool share_known)
{
    if (ratio > chance) return more_than_predicted(share_known);
    return ratio > most_ratio ? "more than predicted, but chance alone may do that" : "as expected";
}

Json known(const std::optional<double>& value)
{
    return value ? Json(*value) : Json("unknown");
}

} // namespace

Json expectation_json(const Expectation& e)
{
    Json json;
    if (e.nominal) json["nominal_mm"] = *e.nominal;
    json["measured_mm"] = e.measured;
    if (e.nominal) json["deviation_mm"] = e.measured - *e.nominal;
    std::optional<double> predicted, ratio;
    if (e.noise) predicted = std::hypot(*e.noise, e.calibration.value_or(0.0));
    if (predicted && *predicted > 0.0) ratio = std::abs(e.measured - e.nominal.value_or(0.0)) / *predicted;
    json["predicted_mm"] = known(predicted);
    json["noise_mm"] = known(e.noise);
    json["calibration_mm"] = known(e.calibration);
    json["ratio"] = known(ratio);
    const bool share = e.calibration.has_value();
    json["says"] = !ratio ? "unknown: nothing says what the noise does to it"
        : e.nominal       ? words_of_one(*ratio, share)
                          : words_of_rms(*ratio, share);
    return json;
}

} // namespace vexo
