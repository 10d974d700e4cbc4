#pragma once

#include "decode/MultiPhaseHolder.h"

namespace vexo {

/// Takes the wrapped phases that another decoder has decoded already, and unwraps them:
///
///     0        8-bit dark frame
///     1        8-bit lit frame
///     2 + f    32-bit float phases of period f, fractions of the period; step in bytes, any alignment
///
/// There are as many periods as `table` counts. A pixel with a phase that is NaN or far outside 0..1 gets no
/// coordinate.
class MultiPhaseLoader : public MultiPhaseHolder {
public:
    /// @param params  limits; not owned, must outlive the object
    /// @param table   not owned, must outlive the object
    MultiPhaseLoader(int camera_id, const MultiPhaseMatchingParam* params, const FringePairTable* table);

    int set_input(void* data, int width, int height, unsigned long step, int index) override;
    void preproc() override;
};

} // namespace vexo
