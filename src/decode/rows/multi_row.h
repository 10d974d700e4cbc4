#pragma once

#include "decode/rows/bit_row.h"
#include "decode/rows/kernels.h"

#include <array>
#include <vector>

namespace vexo {

/// Multi-period phase of one image row after another, from frames to pruned coordinates in one pass; the same
/// results as MultiPhaseDecoder::preproc() and unwrap().
///
/// Threads  none; every thread has its own.
class MultiRow {
public:
    struct MultiFrameRows {
        const uint8_t* black;
        const uint8_t* white;
        std::array<std::array<const uint8_t*, 4>, 3> steps; ///< four for each period
    };
    struct Periods {
        std::array<int, 3> period;   ///< projector px
        std::array<float, 3> offset; ///< rad, phase_offset()
        PairSlots slots;
    };

    /// Room for rows of this width; allocates only when it grows.
    void resize(int cols);
    /// @param out   coordinates, projector px, of all that are resolved, pruned ones too; 0 elsewhere
    /// @param mask  255 at those that are left, else 0
    void decode(const RowKernels& kernels, const float* angles, const MultiFrameRows& frames, const ByteLimits& limits,
        const Periods& periods, float* out, uint8_t* mask) noexcept;

    /// MultiPhaseHolder::_remove_extreme_value() of one row.
    /// @param v     coordinates
    /// @param kept  255 or 0, BitRow::flags_of() of them; which coordinates there are
    /// @param mask  out, those that are left
    void prune(const RowKernels& kernels, const float* v, const uint8_t* kept, uint8_t* mask) noexcept;

private:
    /// Two entries that follow one another in the list, and fall.
    struct Fall {
        int left;
        int right;
    };
    /// Coordinates where there are usable pixels.
    void _resolve_range(const RowKernels& kernels, const float* angles, const MultiFrameRows& frames,
        const Periods& periods, const BitRow::Range& range, float* out) noexcept;
    void _find_falls(const float* v) noexcept;
    void _remove_falls(const float* v) noexcept;

    int _cols = 0;
    std::vector<uint8_t> _valid, _resolved, _fall_flags; ///< 255 or 0; padded with 0
    std::array<std::vector<float>, 3> _positions;
    BitRow _kept;
    BitRow _falls;
    std::vector<Fall> _open, _next;
};

} // namespace vexo
