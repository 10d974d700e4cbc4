#include "host/clouds/smooth.h"

#include "base/parallel.h"
#include "host/clouds/shared_noise.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <vector>

namespace vexo {

namespace {

constexpr int reach = 3, side = 2 * reach + 1;
constexpr int fewest = 30; // of 49: 60 %

/// Sums along rows or columns of so many values to both sides.
cv::Mat_<float> sums_along(const cv::Mat_<float>& values, bool rows, int half)
{
    cv::Mat_<float> sums(values.size());
    const int lines = rows ? values.rows : values.cols, length = rows ? values.cols : values.rows;
    const auto at = [rows](int line, int i) { return rows ? cv::Point(i, line) : cv::Point(line, i); };
    in_parallel(static_cast<std::size_t>(lines), [&](std::size_t which) {
        const int line = static_cast<int>(which);
        double sum = 0.0;
        for (int i = 0; i < length + half; ++i) {
            if (i < length) sum += static_cast<double>(values(at(line, i)));
            if (i > 2 * half) sum -= static_cast<double>(values(at(line, i - 2 * half - 1)));
            if (i >= half) sums(at(line, i - half)) = static_cast<float>(sum);
        }
    });
    return sums;
}

/// The noise that the pixels around each point have, as the sigma of one of them: what a sample that lies between two
/// pixels has less, it shares with its neighbours, so that a fit does not profit. The geometric mean over 81 x 81
/// pixels, as far as the fraction can explain it: sigma is 0.76 to 1.45 of its mean by it.
cv::Mat_<float> without_fractions(const cv::Mat& sigma)
{
    constexpr int half = 40;
    cv::Mat_<float> logs(sigma.size(), 0.0F), known(sigma.size(), 0.0F);
    for (int y = 0; y < sigma.rows; ++y)
        for (int x = 0; x < sigma.cols; ++x)
            if (sigma.at<float>(y, x) > 0.0F) { // false for NaN
                logs(y, x) = std::log(sigma.at<float>(y, x));
                known(y, x) = 1.0F;
            }
    const cv::Mat_<float> sum = sums_along(sums_along(logs, true, half), false, half);
    const cv::Mat_<float> count = sums_along(sums_along(known, true, half), false, half);
    cv::Mat_<float> mean = sigma.clone();
    for (int y = 0; y < sigma.rows; ++y)
        for (int x = 0; x < sigma.cols; ++x)
            if (known(y, x) > 0.0F)
                mean(y, x) = std::clamp(std::exp(sum(y, x) / count(y, x)), mean(y, x) / 1.45F, mean(y, x) / 0.76F);
    return mean;
}

using Window = std::array<std::array<double, side>, side>; // row, column

using Terms = cv::Vec<double, 6>; // of a quadratic

/// In units of the window's half side.
Terms terms_at(int dx, int dy)
{
    const double x = dx / static_cast<double>(reach), y = dy / static_cast<double>(reach);
    return { 1.0, x, y, x * x, x * y, y * y };
}

class Smoother {
public:
    Smoother(const cv::Mat& disparity, const cv::Mat& sigma)
        : _disparity(disparity)
        , _sigma(sigma)
        , _noise(without_fractions(sigma))
    {
        for (int dy = -reach; dy <= reach; ++dy)
            for (int dx = -reach; dx <= reach; ++dx)
                _terms.push_back(terms_at(dx, dy));
    }

    /// False: the point stays as it is.
    bool fit(int y, int x, float& disparity, float& sigma) const
    {
        std::array<double, side * side> weights {};
        cv::Matx66d normal = cv::Matx66d::zeros();
        if (_add_neighbours(y, x, weights, normal) < fewest) return false;
        const Terms first = normal.solve(Terms(1, 0, 0, 0, 0, 0), cv::DECOMP_CHOLESKY);
        Window noise {}; // what each point's noise does to the fit
        double sum = 0.0, offset = 0.0;
        for (int k = 0; k < side * side; ++k) {
            const auto i = static_cast<std::size_t>(k);
            if (weights[i] == 0.0) continue;
            const double share = weights[i] * first.dot(_terms[i]);
            const int j = y + k / side - reach, l = x + k % side - reach;
            sum += share;
            offset += share * static_cast<double>(_disparity.at<float>(j, l) - _disparity.at<float>(y, x));
            noise[i / side][i % side] = share * static_cast<double>(_noise(j, l));
        }
        if (!(std::abs(sum - 1.0) < 1e-6)) return false; // not to be solved
        disparity = static_cast<float>(static_cast<double>(_disparity.at<float>(y, x)) + offset);
        sigma = static_cast<float>(std::sqrt(_variance(noise)));
        return true;
    }

private:
    int _add_neighbours(int y, int x, std::array<double, side * side>& weights, cv::Matx66d& normal) const
    {
        const float own = _disparity.at<float>(y, x), own_sigma = _sigma.at<float>(y, x);
        int count = 0;
        for (int j = std::max(0, y - reach); j <= std::min(_disparity.rows - 1, y + reach); ++j)
            for (int i = std::max(0, x - reach); i <= std::min(_disparity.cols - 1, x + reach); ++i) {
                const float s = _sigma.at<float>(j, i), off = std::abs(_disparity.at<float>(j, i) - own);
                const auto dx = static_cast<float>(i - x), dy = static_cast<float>(j - y);
                const float limit
                    = 3.0F * std::sqrt(s * s + own_sigma * own_sigma) + 0.3F * std::sqrt(dx * dx + dy * dy);
                if (!(off <= limit) || !(s > 0.0F)) continue; // also where nothing, or no sigma, is known
                const int number = (j - y + reach) * side + i - x + reach;
                const auto k = static_cast<std::size_t>(number);
                weights[k] = 1.0 / (static_cast<double>(s) * static_cast<double>(s));
                const Terms& t = _terms[k];
                for (int row = 0; row < 6; ++row)
                    for (int column = 0; column <= row; ++column)
                        normal(row, column) += weights[k] * t[row] * t[column];
                ++count;
            }
        for (int row = 0; row < 6; ++row)
            for (int column = row + 1; column < 6; ++column)
                normal(row, column) = normal(column, row);
        return count;
    }

    double _variance(const Window& noise) const
    {
        double sum = 0.0;
        for (int dy = 0; dy <= SharedNoise::rows; ++dy)
            for (int dx = dy == 0 ? 0 : 1 - side; dx < side; ++dx) {
                double products = 0.0;
                for (std::size_t row = 0; row + static_cast<std::size_t>(dy) < side; ++row)
                    for (int column = std::max(0, -dx); column < side - std::max(0, dx); ++column) {
                        const int other = column + dx;
                        products += noise[row][static_cast<std::size_t>(column)]
                            * noise[row + static_cast<std::size_t>(dy)][static_cast<std::size_t>(other)];
                    }
                sum += (dx == 0 && dy == 0 ? 1.0 : 2.0) * _shared(dx, dy) * products;
            }
        return sum;
    }

    const cv::Mat &_disparity, &_sigma;
    const cv::Mat_<float> _noise;
    const SharedNoise _shared;
    std::vector<Terms> _terms;
};

} // namespace

Smoothed smooth(const cv::Mat& disparity, const cv::Mat& sigma)
{
    Smoothed smoothed { disparity.clone(), sigma.clone() };
    const Smoother smoother(disparity, sigma);
    std::vector<long long> changed(static_cast<std::size_t>(disparity.rows));
    in_parallel(changed.size(), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < disparity.cols; ++x)
            if (sigma.at<float>(y, x) > 0.0F && disparity.at<float>(y, x) == disparity.at<float>(y, x))
                changed[row] += smoother.fit(y, x, smoothed.disparity.at<float>(y, x), smoothed.sigma.at<float>(y, x));
    });
    smoothed.changed = std::accumulate(changed.begin(), changed.end(), 0LL);
    return smoothed;
}

} // namespace vexo
