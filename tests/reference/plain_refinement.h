#pragma once

#include "host/measurement/bend.h"
#include "host/measurement/refine.h"
#include "host/measurement/row_lines.h"

#include <array>
#include <cmath>
#include <limits>

/// The refinement from its definition, point by point: what the row kernels are compared with, bit for bit.
namespace plain {

constexpr float none = std::numeric_limits<float>::quiet_NaN();

/// The four raw pixels around a position.
struct Four {
    Four(const vexo::RectifyingTable& table, int y, int x, cv::Size raw)
    {
        const float px = table.x.at<float>(y, x), py = table.y.at<float>(y, x);
        inside = px >= 0 && py >= 0 && px < float(raw.width - 1) && py < float(raw.height - 1);
        const auto clamped = [](float p, int size) { return !(p > 0) ? 0 : p < float(size - 1) ? p : float(size - 2); };
        const float cx = clamped(px, raw.width), cy = clamped(py, raw.height);
        left = int(cx), top = int(cy), u = cx - float(left), v = cy - float(top);
    }
    std::array<float, 4> of(const cv::Mat& m) const
    {
        return { m.at<float>(top, left), m.at<float>(top, left + 1), m.at<float>(top + 1, left),
            m.at<float>(top + 1, left + 1) };
    }
    float phase(const cv::Mat& m) const
    {
        const auto q = of(m);
        const float b = vexo::shortest(q[1] - q[0]), e = vexo::shortest(q[2] - q[0]), g = vexo::shortest(q[3] - q[0]);
        return q[0] + (1 - v) * u * b + v * ((1 - u) * e + u * g);
    }
    float variance(const cv::Mat& m) const
    {
        const auto q = of(m);
        return !inside ? none
                       : (1 - v) * ((1 - u) * std::abs(q[0]) + u * std::abs(q[1]))
                + v * ((1 - u) * std::abs(q[2]) + u * std::abs(q[3]));
    }
    bool usable(const cv::Mat& m) const
    {
        const auto q = of(m);
        return inside && q[0] > 0 && q[1] > 0 && q[2] > 0 && q[3] > 0;
    }
    int left, top;
    float u, v;
    bool inside;
};

/// One row of both cameras.
class Row {
public:
    Row(const std::array<vexo::RawPhases, 2>& raw, const vexo::RectifyingTables& tables, int y)
        : _raw(raw)
    {
        for (size_t c = 0; c < 2; ++c)
            for (int x = 0; x < tables[c].x.cols; ++x)
                _at[c].emplace_back(tables[c], y, x, raw[c].variance.size());
    }

    int cols() const { return int(_at[1].size()); }
    const Four& at(size_t camera, int x) const { return _at[camera][size_t(x)]; }
    bool usable(int k) const { return k >= 0 && k < cols() && at(1, k).usable(_raw[1].variance); }
    float variance(size_t camera, int x) const { return at(camera, x).variance(_raw[camera].variance); }
    /// Coordinate of pixel x of camera c, relative to that of column k of camera 1.
    float relative(size_t c, int x, int k) const
    {
        float sum = 0;
        for (size_t f = 0; f < _raw[1].sets.size(); ++f)
            sum += _raw[1].sets[f].weight
                * vexo::shortest(at(c, x).phase(_raw[c].phases[f]) - at(1, k).phase(_raw[1].phases[f]));
        return sum;
    }
    float step(int k) const { return k < 0 || k + 1 >= cols() ? 0 : relative(1, k + 1, k); }

private:
    const std::array<vexo::RawPhases, 2>& _raw;
    std::array<std::vector<Four>, 2> _at;
};

struct Point {
    int column = 0, samples = 0;
    float t = none, variance = none, bend = none;
};

/// The lines around a column, and a coordinate on them.
struct Lines {
    Lines(const Row& r, int x, int at)
        : row(r)
        , k(at)
        , d(r.relative(0, x, at))
    {
        const float x1 = r.step(k), x2 = x1 + r.step(k + 1), y1 = r.step(k - 1), y2 = y1 + r.step(k - 2);
        const bool three_there = r.usable(k - 1) && r.usable(k) && r.usable(k + 1);
        const float slope5 = (x1 + y1 + 2 * (x2 + y2)) * 0.1F, slope3 = (x1 + y1) * 0.5F;
        const float over5 = three_there && r.usable(k - 2) && r.usable(k + 2) && slope5 > 0 ? 1 / slope5 : none;
        const float over3 = three_there && slope3 > 0 ? 1 / slope3 : none;
        five = (d - (x1 + x2 - y1 - y2) * 0.2F) * over5;
        three = (d - (x1 - y1) * (1.0F / 3)) * over3;
        const int left = d < 0 ? k - 1 : k;
        over2 = r.usable(left) && r.usable(left + 1) && r.step(left) > 0 ? 1 / r.step(left) : none;
        two = d * over2;
        if (!(std::abs(two) <= 1)) two = none;
        bend = (2 * (x2 - y2) - (x1 - y1)) * (1.0F / 14) * over5;
        inverse = over5 > 0 ? over5 : over3;
        square = r.variance(1, k) * inverse * inverse;
        const float u = r.at(1, k).u;
        p = u * (1 - u);
        kept = vexo::kept_variance(r.at(1, k).v);
        const Four& q = r.at(0, x);
        variance0 = r.variance(0, x) * (vexo::kept_variance(q.u) * vexo::kept_variance(q.v));
        s53 = 0.444889F * square * vexo::share53(five);
        s52 = 0.444889F * square * vexo::share52(five);
        s32 = 0.444889F * square * vexo::share32(three);
    }
    bool agree53(float farthest) const
    {
        return std::abs(five) <= farthest && three == three && !vexo::disagree(five, three, s53)
            && !vexo::disagree(five, two, s52);
    }
    Point by_five() const
    {
        const float b = five - three, excess = b * b - 2 * s53, bias = excess > 0 ? vexo::bias_of_five * excess : 0;
        return { k, 5, five,
            variance0 * inverse * inverse + kept * square * (0.2F - 0.08F * p)
                + five * five * (kept * square * (0.1F - 0.12F * p)) + bias,
            bend };
    }
    Point by_three() const
    {
        const float left = (1 - 2 * p / 3) / 3 + three * three * (1 - 2 * p) * 0.5F, b = two == two ? three - two : 0;
        return { k, 3, three, noise(left, inverse) + std::max(0.0F, b * b - 2 * s32) };
    }
    Point by_two() const
    {
        const float a = std::abs(two);
        return { k, 2, two, noise((1 - 2 * p) * ((1 - a) * (1 - a) + a * a) + 2 * p * a * (1 - a), over2) };
    }
    float noise(float left, float over) const { return (variance0 + kept * left * row.variance(1, k)) * over * over; }

    const Row& row;
    int k;
    float d, five, three, two, over2, bend, inverse, square, p, kept, variance0, s53, s52, s32;
};

inline int nearest_column(const Row& row, int x, int k)
{
    const float d = row.relative(0, x, k), falls = -3 * std::sqrt(row.variance(1, k));
    int nearest = k;
    float least = row.usable(k) ? std::abs(d) : std::numeric_limits<float>::infinity();
    for (const int side : { 1, -1 }) {
        float rise = 0;
        for (int j = 1; j <= 5; ++j) {
            const float step = row.step(side > 0 ? k + j - 1 : k - j);
            if (!(step > falls)) break;
            rise += float(side) * step;
            if (!row.usable(k + side * j) || !(std::abs(d - rise) < least)) continue;
            least = std::abs(d - rise);
            nearest = k + side * j;
        }
    }
    return nearest;
}

inline Point refine(const Row& row, int x, float disparity)
{
    const int k = int(std::clamp(float(x) - disparity + 0.5F, 0.0F, float(row.cols() - 1)));
    const Lines first(row, x, k);
    if (first.agree53(1.5F)) return first.by_five();
    const Lines again(row, x, nearest_column(row, x, k));
    if (again.agree53(1.0F)) return again.by_five();
    if (std::abs(again.three) <= 1 && !vexo::disagree(again.three, again.two, again.s32)) return again.by_three();
    if (again.two == again.two) return again.by_two();
    const float far = 1 + 3 * again.inverse * std::sqrt(again.variance0 + 0.2F * row.variance(1, again.k));
    if (std::abs(again.five - again.three) <= 4 * std::sqrt(again.s53) + vexo::agreement_px
        && std::abs(again.five) <= far)
        return again.by_five();
    return {};
}

/// Takes the mean bend of 7 x 7 off.
inline float straightened(const cv::Mat& bends, int y, int x, float disparity)
{
    long long sum = 0, count = 0;
    for (int i = std::max(y - 3, 0); i <= std::min(y + 3, bends.rows - 1); ++i)
        for (int j = std::max(x - 3, 0); j <= std::min(x + 3, bends.cols - 1); ++j) {
            const float bend = bends.at<float>(i, j);
            if (!(std::abs(bend) <= vexo::largest_bend)) continue;
            sum += static_cast<long long>(bend * (1 << 20));
            ++count;
        }
    if (count < 25) return disparity;
    const float t = vexo::shortest(float(x) - disparity);
    return disparity - float(sum) * vexo::bend_unit / float(count) * (2 - t * t);
}

inline vexo::Refined refine(
    const std::array<vexo::RawPhases, 2>& raw, const vexo::RectifyingTables& tables, const cv::Mat& disparity)
{
    vexo::Refined out { cv::Mat(disparity.size(), CV_32F, cv::Scalar(double(none))),
        cv::Mat(disparity.size(), CV_32F, cv::Scalar(double(none))), cv::Mat::zeros(disparity.size(), CV_8U) };
    cv::Mat bends(disparity.size(), CV_32F, cv::Scalar(double(none)));
    for (int y = 0; y < disparity.rows; ++y) {
        const Row row(raw, tables, y);
        for (int x = 0; x < disparity.cols; ++x) {
            if (disparity.at<float>(y, x) != disparity.at<float>(y, x)) continue;
            const Point point = refine(row, x, disparity.at<float>(y, x));
            if (point.samples == 0) continue;
            out.samples.at<uchar>(y, x) = static_cast<uchar>(point.samples);
            out.disparity.at<float>(y, x) = float(x - point.column) - point.t;
            out.sigma.at<float>(y, x) = std::sqrt(point.variance);
            bends.at<float>(y, x) = point.bend;
        }
    }
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = 0; x < disparity.cols; ++x)
            if (out.samples.at<uchar>(y, x) == 5)
                out.disparity.at<float>(y, x) = straightened(bends, y, x, out.disparity.at<float>(y, x));
    return out;
}

} // namespace plain
