#pragma once

#include "host/clouds/sighted.h"

#include <array>
#include <cstdlib>

namespace vexo {

/// How much of their noise two points have in common that are `dx` columns and `dy` rows apart: 1 for a point and
/// itself. A sample is read between two pixels at a fraction u of the way, so it has (1-u)^2 + u^2 of a pixel's
/// variance, 2/3 in the mean, and u (1-u), 1/6, in common with the next: across rows in both cameras, along them in
/// camera 0. In camera 1 a line through five samples is read at t, within half a px of its middle: their weights are
/// 0.2 + 0.1 t j. Both cameras are taken to be of one noise.
class SharedNoise {
public:
    static constexpr int columns = 6, rows = 1; ///< that are told apart; beyond, points share nothing that counts

    SharedNoise();
    double operator()(int dx, int dy) const
    {
        return _share[static_cast<std::size_t>(std::abs(dx))][static_cast<std::size_t>(std::abs(dy))];
    }

private:
    std::array<std::array<double, rows + 1>, columns + 1> _share {};
};

/// How many points are as good as one that has its noise for itself: neighbours are read from the same pixels, by
/// rectification and by the lines through several of them, so a mean over n points is off by sqrt(this / n) sigma. The
/// sum of the correlations with the neighbours, less what points farther away than any shared pixel have in common:
/// that is the surface's form. At least 1.
/// @param which      numbers of the points
/// @param residuals  of these, over their sigma
double points_as_one(
    const std::vector<Sighted>& points, const std::vector<std::size_t>& which, const std::vector<double>& residuals);

} // namespace vexo
