#pragma once

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <vector>

namespace vexo {

/// Fraction of a period of each pair of differences that four steps can have: a capture's figures ask for millions of
/// arc tangents, of 130 000 different ones but for the sign.
class PhaseTable {
public:
    static const PhaseTable& instance();

    /// (pi - atan2(sine, cosine)) / (2 pi); both within -255 to 255.
    double phase(int sine, int cosine) const
    {
        constexpr double pi = 3.14159265358979323846;
        const double angle = _angles[static_cast<std::size_t>(std::abs(sine) * columns + cosine + most)];
        return (pi - (sine < 0 ? -angle : angle)) / (2.0 * pi);
    }

private:
    PhaseTable();

    static constexpr int most = 255, columns = 2 * most + 1;
    std::vector<double> _angles; ///< [sine][cosine + 255], sine from 0
};

/// Four fringe frames a quarter period apart, at one pixel; grey levels.
struct FringeSteps {
    FringeSteps(const std::vector<cv::Mat>& frames, std::size_t first, int y, int x)
        : i0(frames[first].at<uchar>(y, x))
        , i1(frames[first + 1].at<uchar>(y, x))
        , i2(frames[first + 2].at<uchar>(y, x))
        , i3(frames[first + 3].at<uchar>(y, x))
    {
    }

    double modulation() const
    {
        const int sine = i1 - i3, cosine = i2 - i0;
        return 0.5 * std::sqrt(static_cast<double>(sine * sine + cosine * cosine));
    }
    double mean() const { return 0.25 * (i0 + i1 + i2 + i3); }
    /// 0 for a perfect sinusoid; with grey noise s its standard deviation is s / 2.
    double residual() const { return 0.25 * (i0 + i2 - i1 - i3); }
    bool all_below(int grey) const { return std::max({ i0, i1, i2, i3 }) < grey; }
    /// Fraction of a period, 0 to 1, of gray code + phase; it falls along the row where the frames step the other way.
    double phase() const { return PhaseTable::instance().phase(i1 - i3, i2 - i0); }
    /// Cosine of twice the phase angle: with the light a0 + a1 cos(t) + a2 cos(2t) the residual is a2 cos(2t).
    double second_cosine() const
    {
        const double c = i0 - i2, s = i1 - i3;
        return (c * c - s * s) / (c * c + s * s);
    }

    int i0, i1, i2, i3;
};

} // namespace vexo
