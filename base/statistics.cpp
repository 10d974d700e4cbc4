#include "base/statistics.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

double quantile(std::vector<float> values, double share)
{
    return quantiles(std::move(values), { share })[0];
}

std::vector<double> quantiles(std::vector<float> values, const std::vector<double>& shares)
{
    std::vector<double> found(shares.size(), std::nan(""));
    auto first = values.begin(); // smaller values lie before it
    for (std::size_t i = 0; i < shares.size() && !values.empty(); ++i) {
        const auto at = static_cast<std::ptrdiff_t>(shares[i] * static_cast<double>(values.size() - 1));
        std::nth_element(first, values.begin() + at, values.end());
        first = values.begin() + at;
        found[i] = static_cast<double>(*first);
    }
    return found;
}

std::vector<float> finite_values(const cv::Mat& values)
{
    std::vector<float> finite;
    finite.reserve(values.total());
    for (int y = 0; y < values.rows; ++y)
        for (int x = 0; x < values.cols; ++x)
            if (std::isfinite(values.at<float>(y, x))) finite.push_back(values.at<float>(y, x));
    return finite;
}

double median(std::vector<double> values)
{
    values.erase(
        std::remove_if(values.begin(), values.end(), [](double v) { return !std::isfinite(v); }), values.end());
    if (values.empty()) return std::numeric_limits<double>::quiet_NaN();
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace vexo
