#pragma once

#include "decode/FringePairTable.h"
#include "decode/ProjectorPositions.h"
#include "vexo/records.h"

namespace vexo {

/// Unwrapping of multi-period phase: the wrapped phases of three periods become one projector coordinate in
/// projector px, through the fringe pair table. Pixels that the table cannot resolve leave `valid`; then each
/// row is pruned to a rising sequence.
///
/// `params` belongs to the owner and may change at any time, to any values; the number of periods is that
/// of construction.
class MultiPhaseHolder : public ProjectorPositions {
public:
    /// Largest coordinate kept, projector px: the columns that patterns may use. Independent of the table.
    static constexpr float max_coordinate = 912.0F;

    void unwrap() override;

    const MultiPhaseMatchingParam* params; ///< limits and periods; not owned, may be null (then nothing is valid)
    const FringePairTable* pair_table;     ///< not owned; without a built table nothing is valid
    std::vector<cv::Mat_<float>> phases;   ///< wrapped phase of each period, fraction of the period

    /// Prunes every row of `valid` until its coordinates rise, and empties rows of fewer than 3 entries.
    void _remove_extreme_value();
    /// One pruning pass over one row: an entry stays when its list neighbours do not contradict it,
    /// v[i-1] <= v[i] <= v[i+1]. @return entries left; 3, and nothing changed, for fewer than 3
    static int _rm_extreme_value(float* row, std::vector<int>& cols);

protected:
    MultiPhaseHolder(int camera_id, int frame_count, const MultiPhaseMatchingParam* params,
        const FringePairTable* table, int nperiods);
};

} // namespace vexo
