#include "base/statistics.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace vexo {

namespace {

/// The bits of a float such that they count up with its value.
std::uint32_t rank_of(float value)
{
    constexpr std::uint32_t sign = 0x80000000U;
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return (bits & sign) != 0 ? ~bits : bits | sign;
}

/// Many values, counted by their upper 16 bits: which of these hold the n-th value is known then, and few are left.
class Counted {
public:
    explicit Counted(const std::vector<float>& values)
        : _values(values)
        , _counts(bins, 0)
    {
        for (const float value : values)
            ++_counts[bin_of(value)];
    }

    /// The value before which `n` others lie.
    float nth(std::size_t n) const
    {
        std::size_t bin = 0, before = 0;
        while (before + _counts[bin] <= n)
            before += _counts[bin++];
        std::vector<float> same;
        same.reserve(_counts[bin]);
        for (const float value : _values)
            if (bin_of(value) == bin) same.push_back(value);
        const auto wanted = same.begin() + static_cast<std::ptrdiff_t>(n - before);
        std::nth_element(same.begin(), wanted, same.end());
        return *wanted;
    }

private:
    static constexpr std::size_t bins = std::size_t { 1 } << 16;
    static std::size_t bin_of(float value) { return rank_of(value) >> 16; }

    const std::vector<float>& _values;
    std::vector<std::uint32_t> _counts;
};

std::ptrdiff_t place_of(double share, const std::vector<float>& values)
{
    return static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
}

std::vector<double> quantiles_of_many(const std::vector<float>& values, const std::vector<double>& shares)
{
    const Counted counted(values);
    std::vector<double> found;
    found.reserve(shares.size());
    for (const double share : shares)
        found.push_back(static_cast<double>(counted.nth(static_cast<std::size_t>(place_of(share, values)))));
    return found;
}

} // namespace

double quantile(std::vector<float> values, double share)
{
    return quantiles(std::move(values), { share })[0];
}

std::vector<double> quantiles(std::vector<float> values, const std::vector<double>& shares)
{
    constexpr std::size_t many = 50000;
    if (values.size() > many) return quantiles_of_many(values, shares);
    std::vector<double> found(shares.size(), std::nan(""));
    auto first = values.begin(); // smaller values lie before it
    for (std::size_t i = 0; i < shares.size() && !values.empty(); ++i) {
        const std::ptrdiff_t at = place_of(shares[i], values);
        std::nth_element(first, values.begin() + at, values.end());
        first = values.begin() + at;
        found[i] = static_cast<double>(*first);
    }
    return found;
}

std::vector<float> finite_values(const cv::Mat& values)
{
    std::vector<float> finite(values.total());
    std::size_t count = 0;
    for (int y = 0; y < values.rows; ++y) {
        const float* const row = values.ptr<float>(y);
        for (int x = 0; x < values.cols; ++x) { // each is put, and the next goes on top of what is not finite
            finite[count] = row[x];
            count += std::isfinite(row[x]) ? 1 : 0;
        }
    }
    finite.resize(count);
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
