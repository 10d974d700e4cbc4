#pragma once

#include "matching/PhaseStereoMatching.h"

namespace vexo {

/// Point clouds from gray code + phase frames (selector 1); phases are in fringe periods.
class GyPsMatching final : public PhaseStereoMatching {
public:
    /// Default record; no decoders before setparams().
    GyPsMatching();

    void destroy() override { delete this; }
    /// @param p  GrayPhaseMatchingParam
    bool setparams(void* p) override;
    /// Frames of the decoder: dark, lit, 7 bit planes, 4 fringe frames. Loaded data has 4 frames, see
    /// GrayPhaseLoader.
    int requiredframes() const override { return frames; }
    int get_datatype() const override { return record.datatype; }

private:
    static constexpr int frames = 13;

    void _make_decoders();

    GrayPhaseMatchingParam record; ///< in force, even when setparams() refused it
};

} // namespace vexo
