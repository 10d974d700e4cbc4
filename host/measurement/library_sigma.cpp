#include "host/measurement/library_sigma.h"

#include "base/parallel.h"
#include "host/measurement/row_lines.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace vexo {

namespace {

constexpr float none = std::numeric_limits<float>::quiet_NaN();

double square(double v)
{
    return v * v;
}

/// The last bit of a float of this size.
double last_bit(double v)
{
    return std::ldexp(1.0, std::ilogb(v) - 23);
}

/// Variance that rounding leaves in the sums of column times coordinate, in squared units of those.
double rounding_of_sums(int samples, double column, double coordinate)
{
    const double x = std::max(column, 1.0), y = std::max(coordinate, 1.0);
    double sum = samples * square(last_bit(x * y));
    for (int i = 1; i <= samples; ++i)
        sum += square(last_bit(i * x * y)) + square(x * last_bit(i * y));
    return sum / 12.0;
}

/// What a line through neighbouring columns leaves of the rounding of positions: with a table that goes on by `step`
/// px a column the roundings of columns j apart correlate as 1 - 6 a (1 - a), a = frac(32 j step).
double averaged_rounding(int samples, double step)
{
    double sum = 0.0;
    for (int j = 1 - samples; j < samples; ++j) {
        const double turns = 32.0 * j * step, a = turns - std::floor(turns);
        sum += (samples - std::abs(j)) * (1.0 - 6.0 * a * (1.0 - a));
    }
    return sum / (samples * samples);
}

/// rounding_of_sums() at each column: coordinates rise along the picture.
std::vector<double> rounding_by_column(const LibraryFit& fit, int cols)
{
    std::vector<double> rounding;
    rounding.reserve(static_cast<std::size_t>(cols));
    for (int k = 0; k < cols; ++k)
        rounding.push_back(rounding_of_sums(fit.samples, k, static_cast<double>(fit.coordinate_end) * k / cols));
    return rounding;
}

/// The points of one row.
class RowSigma {
public:
    RowSigma(const std::array<RawPhases, 2>& raw, const RectifyingTables& tables, const LibraryFit& fit,
        const std::vector<double>& rounding, int cols)
        : _raw(raw)
        , _tables(tables)
        , _fit(fit)
        , _rounding(rounding)
        , _row0(cols, raw[0].sets)
        , _row1(cols, raw[1].sets)
        , _lines(cols)
    {
    }

    /// @param variance  out: of each point, px^2, but for the bend
    /// @param bend      out: b^2 without its noise, px^2
    void go(int y, const float* disparity, float* variance, float* bend)
    {
        _row0.sample(_raw[0], _tables[0], y, { 0, _lines.cols });
        _row1.sample(_raw[1], _tables[1], y, { 0, _lines.cols });
        _lines.fit(_row1, _raw[1].sets);
        for (int x = 0; x < _lines.cols; ++x) {
            variance[x] = bend[x] = none;
            const double at = static_cast<double>(x) - static_cast<double>(disparity[x]), k = std::round(at);
            if (k >= 0.0 && k < _lines.cols) // false without a disparity
                _go(x, static_cast<int>(k), std::clamp(at - k, -0.5, 0.5), y, variance[x], bend[x]);
        }
    }

private:
    void _go(int x, int k, double t, int y, float& variance, float& bend) const
    {
        const int h = _fit.samples / 2;
        for (int j = -h; j <= h; ++j)
            if (!(_lines.usable[k + j] > 0.0F)) return;
        const double n = _fit.samples, Sxx = n * (n * n - 1.0) / 12.0;
        const auto step = [&](int j) { return static_cast<double>(_lines.step[k + j]); };
        const double x1 = step(0), x2 = x1 + step(1), y1 = -step(-1), y2 = y1 - step(-2);
        const double m = h == 2 ? (x1 - y1 + 2.0 * (x2 - y2)) / Sxx : (x1 - y1) / Sxx;
        const auto i0 = static_cast<std::size_t>(x), i1 = static_cast<std::size_t>(k);
        const double u1 = static_cast<double>(_row1.u[i1]), p = u1 * (1.0 - u1),
                     V1 = static_cast<double>(_row1.variance[i1]);
        const double V0
            = static_cast<double>(_row0.variance[i0] * kept_variance(_row0.u[i0]) * kept_variance(_row0.v[i0]));
        const double G1 = static_cast<double>(kept_variance(_row1.v[i1]));
        const double line
            = (1.0 - 2.0 * p / n) / n + t * t * ((1.0 - 2.0 * p) / Sxx + 2.0 * p * (Sxx - h * (h + 1.0)) / (Sxx * Sxx));
        const double rounded = square(_slope0(x) / m) + averaged_rounding(_fit.samples, _table_step(y, k));
        variance = static_cast<float>(
            (V0 + G1 * line * V1) / (m * m) + rounded / 12288.0 + t * t * _rounding[i1] / square(Sxx * m));
        const double moves = ((n * n - 1.0) / 12.0 - t * t) / m, bent = (2.0 * y2 - y1 - x1 + 2.0 * x2) / 14.0;
        bend = static_cast<float>(
            std::min(square(bent * moves) - V1 * G1 * (1.0 - 2.0 * p) / 14.0 * moves * moves, 1.0));
    }

    /// How much the coordinate of camera 0 rises a column.
    double _slope0(int x) const
    {
        const auto left = static_cast<std::size_t>(std::max(x - 1, 0));
        const auto right = static_cast<std::size_t>(std::min(x + 1, _lines.cols - 1));
        float sum = 0.0F;
        for (std::size_t f = 0; f < _raw[0].sets.size(); ++f)
            sum += _raw[0].sets[f].weight * shortest(_row0.phases[f][right] - _row0.phases[f][left]);
        return static_cast<double>(sum) / 2.0;
    }

    double _table_step(int y, int k) const
    {
        const float* const columns = _tables[1].x.ptr<float>(y);
        const int left = std::min(k, _lines.cols - 2);
        return static_cast<double>(columns[left + 1]) - static_cast<double>(columns[left]);
    }

    const std::array<RawPhases, 2>& _raw;
    const RectifyingTables& _tables;
    LibraryFit _fit;
    const std::vector<double>& _rounding;
    RowPhases _row0, _row1;
    RowLines _lines;
};

/// Mean of the finite entries of 3 x 3, at least 0.
float mean_around(const cv::Mat& values, int y, int x)
{
    float sum = 0.0F, count = 0.0F;
    for (int i = std::max(y - 1, 0); i <= std::min(y + 1, values.rows - 1); ++i)
        for (int j = std::max(x - 1, 0); j <= std::min(x + 1, values.cols - 1); ++j) {
            const float value = values.at<float>(i, j);
            if (!std::isfinite(value)) continue;
            sum += value;
            ++count;
        }
    return std::max(0.0F, sum / std::max(count, 1.0F));
}

} // namespace

cv::Mat library_sigma(const std::array<RawPhases, 2>& raw, const RectifyingTables& tables, const cv::Mat& disparity,
    const LibraryFit& fit)
{
    constexpr int band = 32; // rows
    cv::Mat variance(disparity.size(), CV_32F), bend(disparity.size(), CV_32F), sigma(disparity.size(), CV_32F);
    const auto by_bands = [&](const auto& work) {
        in_parallel(static_cast<std::size_t>((disparity.rows + band - 1) / band), [&](std::size_t i) {
            const int begin = static_cast<int>(i) * band;
            work(begin, std::min(begin + band, disparity.rows));
        });
    };
    const std::vector<double> rounding = rounding_by_column(fit, disparity.cols);
    by_bands([&](int begin, int end) {
        RowSigma rows(raw, tables, fit, rounding, disparity.cols);
        for (int y = begin; y < end; ++y)
            rows.go(y, disparity.ptr<float>(y), variance.ptr<float>(y), bend.ptr<float>(y));
    });
    by_bands([&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            for (int x = 0; x < disparity.cols; ++x)
                sigma.at<float>(y, x) = std::sqrt(variance.at<float>(y, x) + mean_around(bend, y, x));
    });
    return sigma;
}

} // namespace vexo
