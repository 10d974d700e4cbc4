#pragma once

#include "patterns/method.h"

#include <vector>

namespace vexo {

/// How the fringes of a capture were made.
struct FringeMethod {
    Method method = Method::gray_phase;
    std::vector<int> periods; ///< multi-phase: projector px; gray-phase: empty

    bool multi() const { return method == Method::multi_phase; }
};

} // namespace vexo
