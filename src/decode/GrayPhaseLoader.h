#pragma once

#include "decode/GrayPhaseHolder.h"

namespace vexo {

/// Accepts what another decoder has decoded already, and unwraps it:
///
///     0    8-bit dark frame
///     1    8-bit lit frame
///     2    8-bit binary period numbers, 0 to 255
///     3    32-bit float phases, fractions of a period, 0 to 1; step in bytes, any alignment
///
/// A pixel whose phase is NaN or far outside 0..1 gets no coordinate.
class GrayPhaseLoader : public GrayPhaseHolder {
public:
    /// @param params  limits; not owned, must outlive the object
    GrayPhaseLoader(int camera_id, const GrayPhaseMatchingParam* params);

    int set_input(void* data, int width, int height, unsigned long step, int index) override;
    void preproc() override;
};

} // namespace vexo
