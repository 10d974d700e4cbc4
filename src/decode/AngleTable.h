#pragma once

#include <cmath>
#include <cstddef>
#include <vector>

namespace vexo {

/// The angle of two grey-level differences, by table: fringe formulas need atan2 of nothing else, and an
/// 8-bit difference has 511 values.
///
///     angle(s, c) = float(atan2(s, c))         rad, -pi to pi; s and c in -255 to 255
///
/// Only s >= 0 is stored, 523 kB: atan2(-s, c) is -atan2(s, c) to the last bit. Rows of the table are 511 long,
/// not 512: the cells that one fringe visits then spread over all sets of the cache.
///
/// Threads  immutable once built; the first call of instance() builds it (2 ms), in one thread.
class AngleTable {
public:
    static constexpr int largest = 255;             ///< grey levels, of a difference
    static constexpr int columns = 2 * largest + 1; ///< values of c

    static const AngleTable& instance();

    float operator()(int sine, int cosine) const noexcept { return angle_of(data(), sine, cosine); }
    const float* data() const noexcept { return _angles.data(); }

    /// The look-up itself, for row kernels that hold data() in a register.
    __attribute__((always_inline)) static float angle_of(const float* angles, int sine, int cosine) noexcept
    {
        const float a = angles[index_of(sine, cosine)];
        return sine < 0 ? -a : a;
    }
    __attribute__((always_inline)) static int index_of(int sine, int cosine) noexcept
    {
        return (sine < 0 ? -sine : sine) * columns + cosine + largest;
    }

private:
    AngleTable();
    std::vector<float> _angles; ///< (largest + 1) x columns
};

} // namespace vexo
