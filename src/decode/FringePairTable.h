#pragma once

#include <cstdint>
#include <vector>

namespace vexo {

/// Resolves the ambiguity of phases measured with three fringe periods.
///
/// A projector position x lies x_i = x - k_i T_i px after the start of fringe k_i of period T_i. The
/// differences x_i - x_0 = -(k_i T_i - k_0 T_0) depend on the fringe numbers alone, and, up to the least common
/// multiple of the periods, identify them. The table maps every pair of differences that occurs to its numbers.
///
/// Fringe numbers are stored in a byte: positions after fringe 255 of the shortest period are unresolved.
///
/// Threads  immutable after construction; unwrap() may run in many threads at once.
/// Source   fringe orders from integer periods: Gushov, Solodkin, Opt. Lasers Eng. 14 (1991) 311; Zhong, Zhang,
///          Appl. Opt. 40 (2001) 492. Here by table instead of by congruences.
class FringePairTable {
public:
    /// Builds the table, in projector px. `ok` stays false, and no table is built, unless there are three
    /// periods >= 2 whose common multiple is below 2^31 and whose table has at most 2^24 slots.
    explicit FringePairTable(const std::vector<int>& periods);
    FringePairTable(const FringePairTable&) = delete;
    FringePairTable& operator=(const FringePairTable&) = delete;

    /// Projector coordinate, px, of the wrapped phases of the three periods.
    ///
    ///     x = mean of k_i T_i + phases[i] T_i
    ///
    /// @param phases  three fractions of a period; may be anything, NaN too
    /// @return        the coordinate, or `maxp` when the phases belong to no position (or `ok` is false)
    float unwrap(float const* phases) const;

    /// Lists the slots on the standard output, fringe numbers as raw bytes.
    void print() const;

    bool ok = false;                       ///< the table has been built
    int32_t maxp = 0;                      ///< least common multiple of the periods, px; stands for "unresolved", too
    int32_t count = 0;                     ///< number of periods
    int32_t npairs = 0;                    ///< count - 1 differences, each to the first period
    float scale = 0.0F;                    ///< 1 / count
    int32_t tmax = 0;                      ///< largest period, px
    std::vector<int32_t> periods;          ///< px, in the caller's order
    std::vector<const signed char*> table; ///< fringe numbers of every slot, or null
    std::vector<signed char> numbers;      ///< where they are stored, `count` for each registered combination
    std::vector<float> offsets;            ///< for every slot, px: mean of k_i T_i
    std::vector<float> resolved;           ///< `offsets` of the slots that have numbers, infinity of the others
    std::vector<int32_t> lower;            ///< for every difference: -lower is its smallest value, px
    std::vector<int32_t> range;            ///< for every difference: how many values it can have

private:
    int32_t _calc_maxp() const noexcept;
    /// Sweeps the projector axis from 0 to `maxp` and registers every combination of fringe numbers met.
    void _create_table();
    /// Moves period i to its next fringe, when no other period's next fringe starts earlier.
    bool _update(std::vector<int>& fringes, int i) const noexcept;
    void _register_pair(const int* diffs, const std::vector<int>& fringes);
};

} // namespace vexo
