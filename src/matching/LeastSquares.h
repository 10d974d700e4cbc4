#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace vexo {

/// Local straight line through a row's phase, for sub-pixel columns:
///
///     phase = slope * column + intercept
///
/// fitted to a few neighbouring valid columns. Call check() to place the samples, then solve().
///
/// Binary contract: the order of the virtual operations; the destructor is not among them.
template <class T> class BaseLeastSquares {
public:
    /// Fits the line to the samples that the last check() placed.
    ///
    ///     D = N Sxx - Sx^2     slope = (N Sxy - Sx Sy) / D     intercept = (Sxx Sy - Sx Sxy) / D
    ///
    /// Sy and Sxy are summed in T, in the order of the samples; all else is double: at column 1000 the
    /// products nearly cancel, and in float the line would be off by whole fringes.
    /// @param k      not used; the position that check() was given
    /// @param phase  image row, one value per column
    /// @param cols   valid columns of the row, ascending; the list that check() was given
    /// @return       false for samples of one column, and for a line that does not rise (a NaN slope passes)
    virtual bool solve(int k, const T* phase, const std::vector<int>& cols) noexcept = 0;

    /// Places the samples around position `k` of `cols`.
    /// @return false when the list has fewer entries than the line has samples
    virtual bool check(int k, const std::vector<int>& cols) noexcept = 0;

    double slope = 0.0;     ///< phase per px
    double intercept = 0.0; ///< phase at column 0

protected:
    ~BaseLeastSquares() = default;
};

/// Line fit over N neighbouring list entries, centred on the position asked for. Where the span would begin
/// before the list it begins at the position itself; where it reaches the end it is the last N entries.
template <class T, int N> class LeastSquares final : public BaseLeastSquares<T> {
public:
    bool solve(int /*k*/, const T* phase, const std::vector<int>& cols) noexcept override
    {
        int64_t sum_x = 0, sum_xx = 0;
        T sum_y = 0, sum_xy = 0;
        for (const int position : span) {
            const int x = cols[static_cast<std::size_t>(position)];
            const T y = phase[x];
            sum_x += x;
            sum_xx += static_cast<int64_t>(x) * x;
            sum_y += y;
            sum_xy += static_cast<T>(x) * y;
        }
        const double n = N;
        const auto Sx = static_cast<double>(sum_x), Sxx = static_cast<double>(sum_xx);
        const auto Sy = static_cast<double>(sum_y), Sxy = static_cast<double>(sum_xy);
        const double D = n * Sxx - Sx * Sx;
        if (D == 0.0) return false;
        const double inverse = 1.0 / D;
        this->slope = (n * Sxy - Sx * Sy) * inverse;
        this->intercept = (Sxx * Sy - Sx * Sxy) * inverse;
        return !(this->slope <= 0.0);
    }

    bool check(int k, const std::vector<int>& cols) noexcept override
    {
        const int size = static_cast<int>(cols.size());
        if (size < N) return false;
        const int before = k - N / 2;
        const int begin = std::min(before < 0 ? k : before, size - N);
        for (int i = 0; i < N; ++i)
            span[i] = begin + i;
        return true;
    }

    int span[N] = {}; ///< positions of the samples in the list of valid columns
};

template <class T> using LeastSquares3 = LeastSquares<T, 3>;
template <class T> using LeastSquares5 = LeastSquares<T, 5>;

} // namespace vexo
