#include "matching/mlps.h"

#include "base/boundary.h"
#include "base/index.h"
#include "decode/MultiPhaseDecoder.h"
#include "decode/MultiPhaseLoader.h"

#include <cstring>
#include <iostream>

namespace vexo {

MlPsMatching::MlPsMatching()
{
    PhaseStereoMatching::setparams(&record);
}

/// The decoders look into the table, so they go first.
MlPsMatching::~MlPsMatching()
{
    decoders = {};
}

bool MlPsMatching::setparams(void* p)
{
    std::cerr << "MlPsMatching::setparams()\n";
    if (p == nullptr) return false;
    std::memcpy(static_cast<void*>(&record), p, multi_phase_param_bytes);
    PhaseStereoMatching::setparams(&record);
    if (why_invalid(record) != nullptr) return false;
    if (!false_if_it_throws([this] { _make_decoders(); }))
        return false; // out of memory: the previous table and decoders stay
    executed = false;
    return true;
}

void MlPsMatching::_make_decoders()
{
    std::vector<int> periods(record.periods, record.periods + record.nperiods);
    auto table = std::make_unique<FringePairTable>(periods);
    std::array<std::unique_ptr<ProjectorPositions>, 2> fresh;
    for (int cam = 0; cam < 2; ++cam) {
        auto& decoder = fresh[at(cam)];
        if (record.datatype == 0)
            decoder = std::make_unique<MultiPhaseDecoder>(cam, &record, table.get(), record.steps, record.nperiods);
        else
            decoder = std::make_unique<MultiPhaseLoader>(cam, &record, table.get());
    }
    decoders.swap(fresh);
    pair_table.swap(table); // the old one goes after the decoders that looked into it: `fresh` is younger
    period_list.swap(periods);
    made_steps = record.steps;
    made_nperiods = record.nperiods;
    first_float_frame = record.datatype == 0 ? INT_MAX : 2; // the loader's phases
}

bool MlPsMatching::exec()
{
    executed = false;
    if (pair_table == nullptr || !pair_table->ok) return false;
    if (record.steps != made_steps || record.nperiods != made_nperiods) return false;
    return PhaseStereoMatching::exec();
}

} // namespace vexo
