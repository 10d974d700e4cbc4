#include "matching/gyps.h"

#include "base/boundary.h"
#include "base/index.h"
#include "decode/GrayPhaseDecoder.h"
#include "decode/GrayPhaseLoader.h"

#include <cstring>
#include <iostream>

namespace vexo {

GyPsMatching::GyPsMatching()
{
    PhaseStereoMatching::setparams(&record);
}

bool GyPsMatching::setparams(void* p)
{
    std::cerr << "GyPsMatching::setparams()\n";
    if (p == nullptr) return false;
    std::memcpy(static_cast<void*>(&record), p, sizeof record);
    PhaseStereoMatching::setparams(&record);
    if (why_invalid(record) != nullptr) return false;
    if (!false_if_it_throws([this] { _make_decoders(); })) return false; // out of memory: the previous decoders stay
    executed = false;
    return true;
}

void GyPsMatching::_make_decoders()
{
    std::array<std::unique_ptr<ProjectorPositions>, 2> fresh;
    for (int cam = 0; cam < 2; ++cam) {
        auto& decoder = fresh[at(cam)];
        if (record.datatype == 0)
            decoder = std::make_unique<GrayPhaseDecoder>(cam, frames, &record);
        else
            decoder = std::make_unique<GrayPhaseLoader>(cam, &record);
    }
    decoders.swap(fresh);
    first_float_frame = record.datatype == 0 ? INT_MAX : 3; // the loader's phases
}

} // namespace vexo
