#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

/// Row matching written down step by step, slow and plain: the twin of PhaseStereoMatching's kernels. Every
/// list access is checked by at().
namespace plain {

struct Limits {
    double max_phase_diff, max_disparity, min_disparity;
    int samples; // 3 or 5
};

struct Row {
    std::vector<int> list;
    std::vector<float> phase;
};

struct Line {
    double slope = 0, intercept = 0;
    std::vector<int> span;
};

inline bool check(Line& line, int samples, int k, const std::vector<int>& cols)
{
    const int size = static_cast<int>(cols.size());
    if (size < samples) return false;
    int begin = k - (samples == 3 ? 1 : 2);
    if (begin < 0) begin = k;
    if (begin + samples >= size) begin = size - samples;
    line.span.clear();
    for (int i = 0; i < samples; ++i)
        line.span.push_back(begin + i);
    return true;
}

inline bool solve(Line& line, const Row& row)
{
    int64_t sum_x = 0, sum_xx = 0;
    float sum_y = 0, sum_xy = 0;
    for (int position : line.span) {
        const int x = row.list.at(static_cast<std::size_t>(position));
        const float y = row.phase.at(static_cast<std::size_t>(x));
        sum_x = sum_x + x;
        sum_xx = sum_xx + int64_t { x } * x;
        sum_y = sum_y + y;
        sum_xy = sum_xy + static_cast<float>(x) * y;
    }
    const double N = static_cast<double>(line.span.size());
    const double Sx = static_cast<double>(sum_x), Sxx = static_cast<double>(sum_xx), Sy = sum_y, Sxy = sum_xy;
    const double D = N * Sxx - Sx * Sx;
    if (D == 0) return false;
    line.slope = (N * Sxy - Sx * Sy) * (1.0 / D);
    line.intercept = (Sxx * Sy - Sx * Sxy) * (1.0 / D);
    if (line.slope <= 0) return false;
    return true;
}

inline int nearest(float phase, const Row& row)
{
    const auto value
        = [&](int k) { return row.phase.at(static_cast<std::size_t>(row.list.at(static_cast<std::size_t>(k)))); };
    int lo = 0, hi = static_cast<int>(row.list.size()) - 1;
    if (value(lo) > phase || phase > value(hi)) return -1;
    while (hi - lo >= 2) {
        const int mid = lo + (hi - lo) / 2;
        const float v = value(mid);
        if (v > phase)
            hi = mid;
        else if (phase > v)
            lo = mid;
        else
            return mid;
    }
    if (std::fabs(value(hi) - phase) > std::fabs(value(lo) - phase)) return lo;
    return hi;
}

inline double disparity_of(float phase, int x0, const Row& right, Line& fit, const Limits& limits)
{
    const double invalid = limits.min_disparity - 1.0;
    const int k = nearest(phase, right);
    if (k == -1) return invalid;
    const int c = right.list.at(static_cast<std::size_t>(k));
    if (std::fabs(phase - right.phase.at(static_cast<std::size_t>(c))) > limits.max_phase_diff) return invalid;
    double x1 = c;
    if (check(fit, limits.samples, k, right.list))
        if (solve(fit, right)) x1 = (phase - fit.intercept) / fit.slope;
    const double d = x0 - x1;
    if (limits.min_disparity <= d && d <= limits.max_disparity) return d;
    return invalid;
}

inline std::vector<double> match_valid(const Row& left, const Row& right, const Limits& limits)
{
    std::vector<double> out(left.phase.size(), limits.min_disparity - 1.0);
    Line fit;
    if (!check(fit, limits.samples, 0, right.list)) return out;
    for (int c : left.list)
        out.at(static_cast<std::size_t>(c))
            = disparity_of(left.phase.at(static_cast<std::size_t>(c)), c, right, fit, limits);
    return out;
}

inline std::vector<double> match_interpolated(const Row& left, const Row& right, const Limits& limits)
{
    std::vector<double> out(left.phase.size(), limits.min_disparity - 1.0);
    Line fit, leftfit;
    if (!check(fit, limits.samples, 0, right.list)) return out;
    if (!check(leftfit, limits.samples, 0, left.list)) return out;
    if (!solve(leftfit, left)) return out;
    const int n = static_cast<int>(left.list.size());
    const auto column = [&](int k) { return left.list.at(static_cast<std::size_t>(k)); };
    int k = 0;
    int x = column(0);
    while (x <= column(n - 1)) {
        while (k + 1 < n && x >= column(k + 1)) {
            if (check(leftfit, limits.samples, k + 1, left.list) && solve(leftfit, left)) {
                k = k + 1;
                break;
            }
            if (k + 2 >= n) return out;
            x = column(k + 2);
            if (x > column(n - 1)) return out;
            k = k + 1;
        }
        const float phase = static_cast<float>(x * leftfit.slope + leftfit.intercept);
        out.at(static_cast<std::size_t>(x)) = disparity_of(phase, x, right, fit, limits);
        x = x + 1;
    }
    return out;
}

} // namespace plain
