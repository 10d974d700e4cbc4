#pragma once

#include "reference/plain_gray_phase.h"

#include <algorithm>
#include <array>
#include <functional>
#include <numeric>
#include <utility>

/// Multi-period phase from the formulas, without haste.
namespace plain {

/// Wrapped phase of one pixel of one period from its grey levels, four shifts or three.
inline float multi_phase(const std::vector<int>& I, int period)
{
    const float offset = static_cast<float>(CV_PI - CV_PI / period);
    float sine = 0, cosine = 0;
    if (I.size() == 3) {
        sine = 1.7320508F * static_cast<float>(I[0]) - static_cast<float>(I[2]);
        cosine = static_cast<float>(2.0 * I[1] - I[0] - I[2]);
    } else {
        sine = static_cast<float>(I[3]) - static_cast<float>(I[1]);
        cosine = static_cast<float>(I[0]) - static_cast<float>(I[2]);
    }
    return (static_cast<float>(std::atan2(double(sine), double(cosine))) + offset) / 6.2831855F;
}

/// The phase images of all periods. @param frames  dark, lit, then `steps` fringe frames a period
inline std::vector<cv::Mat_<float>> multi_phases(
    const std::vector<cv::Mat_<uchar>>& frames, const Rows& valid, int steps, const std::vector<int>& periods)
{
    std::vector<cv::Mat_<float>> phases;
    for (size_t f = 0; f < periods.size(); ++f) {
        phases.emplace_back(frames[0].size(), 0.0F);
        for (size_t y = 0; y < valid.size(); ++y)
            for (int x : valid[y]) {
                std::vector<int> greys;
                for (int s = 0; s < steps; ++s)
                    greys.push_back(
                        frames[2 + static_cast<size_t>(steps) * f + static_cast<size_t>(s)](static_cast<int>(y), x));
                phases[f](static_cast<int>(y), x) = multi_phase(greys, periods[f]);
            }
    }
    return phases;
}

using Triple = std::array<long, 3>;

/// Fringe numbers by pair of position differences: the sweep over the projector axis, with a map for the table.
class PairMap {
public:
    explicit PairMap(const std::vector<int>& periods)
        : T { periods[0], periods[1], periods[2] }
    {
        end = std::lcm(std::lcm(T[0], T[1]), T[2]);
        Triple k { 0, 0, 0 };
        record(k);
        for (bool more = true; more;)
            for (size_t i = 0; i < 3; ++i) {
                const auto next = [&](size_t j) { return (k[j] + 1) * T[j]; };
                if (next(i) > next(0) || next(i) > next(1) || next(i) > next(2)) continue;
                ++k[i];
                record(k);
                if (k[i] * T[i] >= end) more = false;
                if (!more && i == 2) break;
            }
    }

    float unwrap(const std::array<float, 3>& phases) const
    {
        std::array<float, 3> x {};
        for (size_t i = 0; i < 3; ++i) {
            if (wild(phases[i])) return static_cast<float>(end);
            x[i] = static_cast<float>(T[i]) * phases[i];
        }
        const long longest = std::max({ T[0], T[1], T[2] });
        const auto rounded = [&](size_t i, size_t j) {
            return static_cast<long>(std::trunc(double(x[i] - x[j] + static_cast<float>(longest)) + 0.5)) - longest;
        };
        const auto found = numbers.find({ -rounded(1, 0), -rounded(2, 0) });
        if (found == numbers.end()) return static_cast<float>(end);
        const Triple& k = found->second;
        if (k[2] * T[2] - k[1] * T[1] != -rounded(2, 1)) return static_cast<float>(end);
        const float scale = 1.0F / 3.0F;
        return (x[0] + x[1] + x[2]) * scale + static_cast<float>(k[0] * T[0] + k[1] * T[1] + k[2] * T[2]) * scale;
    }

private:
    void record(const Triple& k)
    {
        const bool back_at_0 = k[0] * T[0] == end && k[1] * T[1] == end && k[2] * T[2] == end;
        if (k[0] > 255 || k[1] > 255 || k[2] > 255 || back_at_0) return;
        numbers[{ k[1] * T[1] - k[0] * T[0], k[2] * T[2] - k[0] * T[0] }] = k;
    }
    Triple T;
    long end;
    std::map<std::pair<long, long>, Triple> numbers;
};

/// The position in [0, common multiple) whose phases come nearest to those given, by trying every fringe number
/// of the first period: mean of the three estimates with the smallest spread.
inline double brute_force(const std::array<double, 3>& behind, const std::vector<int>& periods)
{
    const int end = std::lcm(std::lcm(periods[0], periods[1]), periods[2]);
    double best = 1e9, coordinate = -1;
    for (int start = 0; start < end; start += periods[0]) {
        const double e0 = start + behind[0];
        const double e1 = behind[1] + periods[1] * std::round((e0 - behind[1]) / periods[1]);
        const double e2 = behind[2] + periods[2] * std::round((e0 - behind[2]) / periods[2]);
        const double spread = std::max({ e0, e1, e2 }) - std::min({ e0, e1, e2 });
        if (spread >= best) continue;
        best = spread;
        coordinate = (e0 + e1 + e2) / 3;
    }
    return coordinate;
}

/// Pruning of one row in rounds, each over the whole list, until nothing changes.
inline std::vector<int> prune(const float* row, std::vector<int> cols)
{
    while (cols.size() >= 3) {
        std::vector<int> kept;
        for (size_t i = 0; i < cols.size(); ++i) {
            const bool left = i == 0 || row[cols[i - 1]] <= row[cols[i]];
            const bool right = i + 1 == cols.size() || row[cols[i]] <= row[cols[i + 1]];
            if (left && right) kept.push_back(cols[i]);
        }
        if (kept.size() == cols.size()) return cols;
        cols = kept;
    }
    return {};
}

/// @param resolve  three phases to a coordinate
inline Unwrapped unwrap(const std::vector<cv::Mat_<float>>& phases, const Rows& valid,
    const std::function<float(const std::array<float, 3>&)>& resolve)
{
    Unwrapped u { Rows(valid.size()), cv::Mat_<float>(phases[0].size(), 0.0F), {} };
    for (size_t i = 0; i < valid.size(); ++i) {
        const int y = static_cast<int>(i);
        for (int x : valid[i]) {
            const float coordinate = resolve({ phases[0](y, x), phases[1](y, x), phases[2](y, x) });
            if (coordinate > 912.0F) continue;
            u.map(y, x) = coordinate;
            u.valid[i].push_back(x);
        }
        u.valid[i] = prune(u.map[y], u.valid[i]);
    }
    u.mask = mask_of(u.valid, phases[0].size());
    return u;
}

} // namespace plain
