#pragma once

#include "base/cpu.h"

#include <cstdint>
#include <cstring>

namespace vexo {

/// What a loop without branches divides by where the quotient may not be needed: a zero becomes 1 or -1, so that no
/// host sees an exception. By its bits and without a choice: of one between two divisors compilers make one
/// between two divisions.
VEXO_INLINE double divisor_of(double x) noexcept
{
    constexpr uint64_t one = 0x3FF0000000000000U;
    uint64_t bits = 0;
    std::memcpy(&bits, &x, sizeof bits);
    bits |= -static_cast<uint64_t>(x == 0.0) & one; // -1 or 0
    std::memcpy(&x, &bits, sizeof bits);
    return x;
}

} // namespace vexo
