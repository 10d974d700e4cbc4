#include "host/accuracy/sigma_check.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

struct Scored {
    float sigma, z;
};

std::vector<Scored> score(const Errors& e)
{
    std::vector<Scored> scored;
    for (std::size_t i = 0; i < e.sigmas.size(); ++i)
        if (e.on_visible[i] && e.sigmas[i] > 0.0F && std::isfinite(e.errors[i]))
            scored.push_back({ e.sigmas[i], std::abs(e.errors[i] / e.sigmas[i]) });
    std::sort(scored.begin(), scored.end(), [](const Scored& a, const Scored& b) { return a.sigma < b.sigma; });
    return scored;
}

/// Of the entries from `begin` to `end`.
double rms_of(const std::vector<Scored>& scored, std::size_t begin, std::size_t end)
{
    double squares = 0.0, count = 0.0;
    for (std::size_t i = begin; i < end; ++i) {
        const auto z = static_cast<double>(scored[i].z);
        if (z >= noise_end) continue;
        squares += z * z;
        ++count;
    }
    return std::sqrt(squares / std::max(count, 1.0));
}

double share_below(const std::vector<Scored>& scored, double limit)
{
    const auto below = std::count_if(
        scored.begin(), scored.end(), [limit](const Scored& s) { return static_cast<double>(s.z) < limit; });
    return static_cast<double>(below) / static_cast<double>(scored.size());
}

} // namespace

Json check_sigma(const Errors& e)
{
    constexpr std::size_t tenths = 10;
    const std::vector<Scored> scored = score(e);
    const std::size_t n = scored.size();
    if (n < tenths) return {};
    Json deciles = Json::array(), sigmas = Json::array();
    for (std::size_t i = 0; i < tenths; ++i) {
        deciles.push_back(rms_of(scored, i * n / tenths, (i + 1) * n / tenths));
        sigmas.push_back(scored[(2 * i + 1) * n / (2 * tenths)].sigma);
    }
    const auto by_size = [](const Json& a, const Json& b) { return a.get<double>() < b.get<double>(); };
    return { { "points", n }, { "z_rms", rms_of(scored, 0, n) }, { "z_rms_by_decile", deciles },
        { "sigma_by_decile", sigmas }, { "z_rms_least", *std::min_element(deciles.begin(), deciles.end(), by_size) },
        { "z_rms_most", *std::max_element(deciles.begin(), deciles.end(), by_size) },
        { "within_1", share_below(scored, 1.0) }, { "within_2", share_below(scored, 2.0) },
        { "within_3", share_below(scored, 3.0) }, { "beyond_6", 1.0 - share_below(scored, noise_end) } };
}

} // namespace vexo
