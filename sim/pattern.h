#pragma once

#include <string>
#include <vector>

#include "sim/rig.h"

namespace vexo {
namespace sim {

/// What the projector shows, frame by frame: one grey level (0 to 255) a projector column, the same in all rows.
struct Pattern {
    std::string method;                      ///< "gray-phase", "multi-phase" or "sgbm"
    std::vector<std::vector<double>> frames; ///< frames[k][column]
    std::vector<int> periods;                ///< of the fringes, projector px

    /// Columns up to the last one that the lit frame lights; what lies behind cannot be measured.
    int lit_columns() const noexcept;
};

/// The pattern that belongs to the options' method.
Pattern pattern_of(const RigOptions& options);

/// Gray code + phase shift, in capture order: 0 dark, 1 lit, 2-8 the bits of the Gray code of floor(x / period)
/// (most significant first), 9-12 the fringes
///
///     P_k = A + B cos(2 pi (x + 0.5) / period - k pi / 2)        k = 0..3, rounded to 8 bits
///
/// at integer projector column x. The seven bits number 128 periods: columns <= 128 * period.
Pattern gray_phase_pattern(int columns, int period);

/// Columns that multi-period frames light. The decoder takes no coordinate above 912, and behind the periods' common
/// multiple the pattern repeats: columns from here on stay dark, in the lit frame, too. Were only the fringes dark
/// there, unusable pixels at that edge would take good neighbours with them.
constexpr int multi_phase_columns = 912;

/// Several fringe periods, four shifts each, in capture order: 0 dark, 1 lit, then period by period
///
///     I_s = A - B cos(2 pi (x + 0.5) / period + s pi / 2)        s = 0..3, rounded to 8 bits
///
/// at integer projector column x; dark from multi_phase_columns on.
Pattern multi_phase_pattern(int columns, const std::vector<int>& periods);

/// One evenly lit frame, for block matching.
Pattern flat_pattern(int columns);

/// The light of one projected row across the projector's image: every column a box of one pixel, blurred by the
/// projector's defocus. Its integral is tabulated, so the mean over any interval costs two look-ups.
class ProjectedRow {
public:
    /// @param grey  grey level of each column, 0 to 255
    /// @param gamma  the projector emits 255 (grey / 255)^gamma
    /// @param defocus  standard deviation of the blur, projector px, 0 or more
    ProjectedRow(const std::vector<double>& grey, double gamma, double defocus);

    /// Mean light, 0 to 255, over an interval. Edge coordinates: column i covers [i, i + 1).
    double mean(double centre, double width) const noexcept
    {
        return (_integral(centre + 0.5 * width) - _integral(centre - 0.5 * width)) / width;
    }

private:
    double _integral(double u) const noexcept;

    std::vector<double> _table; ///< integral of the light at every 1 / _per_column of a column
    double _first;              ///< coordinate of _table[0]
    double _per_column;
};

} // namespace sim
} // namespace vexo
