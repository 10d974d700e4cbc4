#include "host/captures/fringe_steps.h"

namespace vexo {

const PhaseTable& PhaseTable::instance()
{
    static const PhaseTable table;
    return table;
}

PhaseTable::PhaseTable()
{
    _angles.reserve(std::size_t { most + 1 } * std::size_t { columns });
    for (int sine = 0; sine <= most; ++sine)
        for (int cosine = -most; cosine <= most; ++cosine)
            _angles.push_back(std::atan2(sine, cosine));
}

} // namespace vexo
