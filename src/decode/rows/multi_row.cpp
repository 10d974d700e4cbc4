#include "decode/rows/multi_row.h"

#include <cstring>
#include <utility>

namespace vexo {

void MultiRow::resize(int cols)
{
    if (cols == _cols) return;
    _cols = 0; // should memory run out, the next call begins anew
    const std::size_t padded = BitRow::flags_of(cols);
    for (std::vector<uint8_t>* row : { &_valid, &_resolved, &_fall_flags })
        row->assign(padded, 0); // what lies after the last column stays 0
    for (std::vector<float>& row : _positions)
        row.resize(padded);
    _kept.resize(cols);
    _falls.resize(cols);
    for (std::vector<Fall>* falls : { &_open, &_next })
        falls->reserve(static_cast<std::size_t>(cols));
    _cols = cols;
}

void MultiRow::decode(const RowKernels& kernels, const float* angles, const MultiFrameRows& frames,
    const ByteLimits& limits, const Periods& periods, float* out, uint8_t* mask) noexcept
{
    kernels.valid(frames.white, frames.black, _cols, limits, _valid.data());
    _kept.pack(_valid.data());
    const auto cols = static_cast<std::size_t>(_cols);
    const BitRow::Range range = _kept.range(_cols);
    const auto begin = static_cast<std::size_t>(range.begin);
    const auto end = static_cast<std::size_t>(range.end);
    std::memset(out, 0, begin * sizeof(float));
    std::memset(out + end, 0, (cols - end) * sizeof(float));
    std::memset(_resolved.data(), 0, begin);
    std::memset(_resolved.data() + end, 0, cols - end);
    if (begin < end) _resolve_range(kernels, angles, frames, periods, range, out);
    prune(kernels, out, _resolved.data(), mask);
}

void MultiRow::_resolve_range(const RowKernels& kernels, const float* angles, const MultiFrameRows& frames,
    const Periods& periods, const BitRow::Range& range, float* out) noexcept
{
    const int begin = range.begin;
    const int cols = range.end - begin;
    std::array<const float*, 3> positions {};
    for (std::size_t f = 0; f < 3; ++f) {
        std::array<const uint8_t*, 4> steps = frames.steps[f];
        for (const uint8_t*& step : steps)
            step += begin;
        float* position = _positions[f].data() + begin;
        kernels.position(steps.data(), angles, periods.offset[f], periods.period[f], cols, position);
        positions[f] = position;
    }
    kernels.resolve(
        positions.data(), _valid.data() + begin, periods.slots, cols, out + begin, _resolved.data() + begin);
}

/// A round of pruning removes every entry that falls to or from a list neighbour, and changes neighbours only where
/// it has removed: so a round is a list of falling pairs, from left to right, and the next round's pairs are found
/// around the gaps that this one has torn.
void MultiRow::prune(const RowKernels& kernels, const float* v, const uint8_t* kept, uint8_t* mask) noexcept
{
    _kept.pack(kept);
    kernels.falls(v, _cols, _fall_flags.data());
    _falls.pack(_fall_flags.data());
    _find_falls(v);
    int left = _kept.count();
    while (left >= 3 && !_open.empty()) {
        _remove_falls(v);
        left = _kept.count();
    }
    if (left < 3) _kept.clear();
    _kept.unpack(mask, _cols);
}

void MultiRow::_find_falls(const float* v) noexcept
{
    _open.clear();
    int last = -1; // kept column in front of the word
    for (std::size_t i = 0; i < _kept.words(); ++i) {
        const uint64_t kept = _kept.word(i);
        if (kept == 0) continue;
        const int first = static_cast<int>(64 * i);
        const bool adjoins = last >= 0 && last == first - 1;
        const uint64_t followed = kept << 1 | (adjoins ? 1U : 0U);
        // Adjacent columns that fall, and columns after a gap.
        for (uint64_t here = kept & ((followed & _falls.word(i)) | ~followed); here != 0; here &= here - 1) {
            const int bit = __builtin_ctzll(here);
            const int right = first + bit;
            const uint64_t before = kept & ((uint64_t { 1 } << bit) - 1);
            const int left = before != 0 ? first + 63 - __builtin_clzll(before) : last;
            if (left >= 0 && v[left] > v[right]) _open.push_back({ left, right });
        }
        last = first + 63 - __builtin_clzll(kept);
    }
}

void MultiRow::_remove_falls(const float* v) noexcept
{
    for (const Fall& fall : _open) {
        _kept.clear(fall.left);
        _kept.clear(fall.right);
    }
    _next.clear();
    int done = -1; // left end of the last pair looked at: gaps that have met give the same one
    for (const Fall& fall : _open) {
        const int left = _kept.before(fall.left);
        if (left < 0 || left == done) continue;
        done = left;
        const int right = _kept.after(fall.right);
        if (right >= 0 && v[left] > v[right]) _next.push_back({ left, right });
    }
    std::swap(_open, _next);
}

} // namespace vexo
