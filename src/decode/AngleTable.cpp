#include "decode/AngleTable.h"

namespace vexo {

const AngleTable& AngleTable::instance()
{
    static const AngleTable table;
    return table;
}

AngleTable::AngleTable()
    : _angles(static_cast<std::size_t>((largest + 1) * columns))
{
    for (int sine = 0; sine <= largest; ++sine)
        for (int cosine = -largest; cosine <= largest; ++cosine) {
            const double angle = std::atan2(static_cast<double>(sine), static_cast<double>(cosine));
            _angles[static_cast<std::size_t>(index_of(sine, cosine))] = static_cast<float>(angle);
        }
}

} // namespace vexo
