#include "host/reports/accuracy_info.h"

#include "base/text.h"
#include "host/cameras/covariance_share.h"

#include <cmath>

namespace vexo {

void add_accuracy(const PairInNumbers& pair, const StatedShare& stated,
    const std::optional<std::pair<double, double>>& depth, Json& info)
{
    add_share(info, stated);
    if (!depth && !stated.share) return;
    const double in_mm = pair.unit.in_mm;
    const std::array<double, 3> distances = depth ? std::array<double, 3> { depth->first * in_mm,
        0.5 * in_mm * (depth->first + depth->second), depth->second * in_mm }
                                                  : stated.share->distance_mm;
    const auto share = stated.usable();
    Json expected { { "distances_mm", distances }, { "share_mm", "unknown" }, { "noise_mm", Json::array() },
        { "accuracy_mm", "unknown" } };
    if (share) expected["share_mm"] = expected["accuracy_mm"] = Json::array();
    for (const double distance : distances) {
        const double noise = usual_noise(pair.f, pair.baseline * in_mm, distance);
        expected["noise_mm"].push_back(noise);
        if (!share) continue;
        const double own = share->at(distance).depth_mm;
        expected["share_mm"].push_back(own);
        expected["accuracy_mm"].push_back(std::hypot(own, noise));
    }
    info["expected_accuracy"] = expected;
}

std::string accuracy_in_words(const Json& info)
{
    const auto found = info.find("expected_accuracy");
    if (found == info.end() || !(*found)["accuracy_mm"].is_array()) return "";
    std::string text;
    for (std::size_t i = 0; i < 3; ++i)
        text += (i == 0 ? "" : ", ") + number((*found)["accuracy_mm"][i].get<double>(), 3) + " mm at "
            + number((*found)["distances_mm"][i].get<double>(), 0) + " mm";
    return text;
}

} // namespace vexo
