#pragma once

#include "host/clouds/sighted.h"

namespace vexo {

/// How many points are as good as one that has its noise for itself: neighbours are read from the same pixels, by
/// rectification and by the lines through several of them, so a mean over n points is off by sqrt(this / n) sigma. The
/// sum of the correlations with the neighbours, less what points farther away than any shared pixel have in common:
/// that is the surface's form. At least 1.
/// @param which      numbers of the points
/// @param residuals  of these, over their sigma
double points_as_one(
    const std::vector<Sighted>& points, const std::vector<std::size_t>& which, const std::vector<double>& residuals);

} // namespace vexo
