#pragma once

#include "matching/PhaseStereoMatching.h"

#include <vector>

/// Row matching as PhaseStereoMatching says it column by column: what RowMatcher, which computes it otherwise, is
/// compared with.
namespace plain {

struct Row {
    std::vector<int> list; ///< valid columns
    std::vector<float> phase;
};

inline vexo::PhaseMatchingParam limits_of(double max_phase_diff, double min, double max, int fit_points)
{
    vexo::PhaseMatchingParam limits;
    limits.max_phase_diff = max_phase_diff;
    limits.min_disparity = min;
    limits.max_disparity = max;
    limits.fit_points = fit_points;
    return limits;
}

class ReadableMatcher final : public vexo::PhaseStereoMatching {
public:
    explicit ReadableMatcher(const vexo::PhaseMatchingParam& record)
    {
        limits = record;
        invalid_disparity = record.min_disparity - 1.0;
    }
    std::vector<double> match(const Row& left, const Row& right, bool interpolate) const
    {
        std::vector<double> out(left.phase.size(), invalid_disparity);
        _match_plainly(out.data(), interpolate, left.list, left.phase.data(), right.list, right.phase.data());
        return out;
    }
    void destroy() override { }
    int get_datatype() const override { return 0; }
};

} // namespace plain
