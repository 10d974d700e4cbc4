#pragma once

#include "decode/FringePairTable.h"
#include "matching/PhaseStereoMatching.h"

#include <memory>
#include <vector>

namespace vexo {

/// Point clouds from multi-period phase frames (selector 2); phases are in projector pixels.
class MlPsMatching final : public PhaseStereoMatching {
public:
    /// Default record; no decoders before setparams().
    MlPsMatching();
    ~MlPsMatching() override;

    void destroy() override { delete this; }
    /// @param p  MultiPhaseMatchingParam, of which multi_phase_param_bytes are read
    bool setparams(void* p) override;
    /// Frames of the default record, 2 + steps * nperiods. A constant: other records need fewer or more, and
    /// setpict() refuses indices that their decoders do not have.
    int requiredframes() const override { return 14; }
    int get_datatype() const override { return record.datatype; }
    /// As for every phase matcher; false, too, unless the periods make a table, and while a refused record in
    /// force asks for other steps or another number of periods than the decoders were made with.
    bool exec() override;

private:
    void _make_decoders();

    MultiPhaseMatchingParam record;              ///< in force, even when setparams() refused it
    std::vector<int> period_list;                ///< periods in use, projector px
    std::unique_ptr<FringePairTable> pair_table; ///< made from period_list; null before setparams()
    int made_steps = 0;                          ///< record.steps when the decoders were made
    int made_nperiods = 0;                       ///< record.nperiods when the decoders were made
};

} // namespace vexo
