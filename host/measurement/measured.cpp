#include "host/measurement/measured.h"

namespace vexo {

std::vector<int> Measured::periods() const
{
    const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record);
    return multi ? std::vector<int>(multi->periods, multi->periods + multi->nperiods) : std::vector<int>();
}

} // namespace vexo
