#pragma once

#include <vector>

#include "sim/rig.h"

namespace vexo {
namespace sim {

/// What the projector shows, frame by frame: one grey level (0 to 255) a projector column, the same in all rows.
struct Pattern {
    Method method = Method::gray_phase;
    std::vector<std::vector<double>> frames; ///< frames[k][column]
    std::vector<int> periods;                ///< of the fringes, projector px

    /// Columns up to the last one that the lit frame lights; what lies beyond cannot be measured.
    int lit_columns() const noexcept;
};

/// The pattern that belongs to the options' method. Throws std::invalid_argument for options that why_invalid()
/// refuses.
Pattern pattern_of(const RigOptions& options);

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
