#include "decode/rows/gray_row.h"

#include <cstring>

namespace vexo {
namespace {

/// Every column is its own position.
struct EveryColumn {
    int operator[](std::size_t position) const noexcept { return static_cast<int>(position); }
};

constexpr std::size_t brush = 16; // px

/// Paints at least `length` pixels, in whole brushes.
void paint(uint8_t* row, int length, int value) noexcept
{
    for (int x = 0; x < length; x += static_cast<int>(brush))
        std::memset(row + x, value, brush);
}

} // namespace

void GrayRow::resize(int cols)
{
    if (cols == _cols) return;
    _cols = 0; // should memory run out, the next call begins anew
    const std::size_t padded = BitRow::flags_of(cols);
    for (std::vector<uint8_t>* row : { &_valid, &_code, &_rise_flags, &_change_flags })
        row->assign(padded, 0); // what lies after the last column stays 0
    for (std::vector<uint8_t>* row : { &_section_code, &_trusted })
        row->assign(padded + brush, 0);
    _phase.resize(padded);
    for (BitRow* bits : { &_rises, &_changes, &_usable })
        bits->resize(cols);
    _sections.reserve(static_cast<std::size_t>(cols));
    _cols = cols;
}

void GrayRow::decode(const RowKernels& kernels, const float* angles, const GrayFrameRows& frames, const Limits& limits,
    float* out, uint8_t* mask) noexcept
{
    kernels.valid(frames.white, frames.black, _cols, limits.pixels, _valid.data());
    _usable.pack(_valid.data());
    const BitRow::Range range = _usable.range(_cols);
    const auto cols = static_cast<std::size_t>(_cols), begin = static_cast<std::size_t>(range.begin),
               end = static_cast<std::size_t>(range.end);
    std::memset(out, 0, begin * sizeof(float));
    std::memset(mask, 0, begin);
    std::memset(out + end, 0, (cols - end) * sizeof(float));
    std::memset(mask + end, 0, cols - end);
    if (range.begin >= range.end) return;
    _decode_range(kernels, angles, frames, range);

    _find_sections();
    choose_anchors(_sections, limits.anchor_length, limits.code_spread);
    _assign_anchors(kernels, range, out, mask);
    for (PhaseSection& section : _sections)
        if (section.length <= limits.reject_length) section.state = section_rejected;
    const auto mark = [mask](int x) { mask[x] = 255; };
    SectionRow<EveryColumn, decltype(mark)> { {}, _phase.data(), _code.data(), out, mark }.fill(_sections);
}

/// Codes, phases and their relations where there are usable pixels; what an earlier row has left on both sides is
/// not looked at.
void GrayRow::_decode_range(
    const RowKernels& kernels, const float* angles, const GrayFrameRows& frames, const BitRow::Range& range) noexcept
{
    const int begin = range.begin;
    const int cols = range.end - begin;
    std::array<const uint8_t*, 7> planes = frames.planes;
    std::array<const uint8_t*, 4> steps = frames.steps;
    for (const uint8_t*& plane : planes)
        plane += begin;
    for (const uint8_t*& step : steps)
        step += begin;
    uint8_t* code = _code.data() + begin;
    float* phase = _phase.data() + begin;
    kernels.code(planes.data(), frames.white + begin, frames.black + begin, cols, code);
    kernels.phase(steps.data(), angles, cols, phase);
    kernels.rises(_valid.data() + begin, phase, code, cols, _rise_flags.data() + begin, _change_flags.data() + begin);
    _rises.pack(_rise_flags.data());
    _changes.pack(_change_flags.data());
}

/// Three kinds of events, in the order of their columns: a section begins at a usable pixel that does not rise from
/// its neighbour, and ends in front of a pixel that does not rise from a usable one; in between, runs of equal
/// codes end where the code changes.
void GrayRow::_find_sections() noexcept
{
    _sections.clear();
    int begin = -1; // where the open section begins; -1: none is open
    int run = 0;    // begin of the run of equal codes
    bool usable_before = false;
    for (std::size_t i = 0; i < _usable.words(); ++i) {
        const uint64_t usable = _usable.word(i);
        const uint64_t rises = _rises.word(i) & usable;
        const uint64_t ends = (usable << 1 | (usable_before ? 1U : 0U)) & ~rises;
        const uint64_t begins = usable & ~rises;
        usable_before = usable >> 63 != 0;
        for (uint64_t events = ends | begins | (_changes.word(i) & rises); events != 0; events &= events - 1) {
            const int bit = __builtin_ctzll(events);
            const int x = static_cast<int>(64 * i) + bit;
            if (begin >= 0) _vote.add(_code[static_cast<std::size_t>(run)], x - run);
            run = x;
            if ((rises >> bit & 1) != 0) continue; // only the code changes
            if (begin >= 0) {
                PhaseSection& section = _sections.emplace_back(); // filled in place: a copy waits for its parts
                section.begin = begin;
                section.end = x;
                section.length = x - begin;
                section.state = section_open;
                _vote.close(section);
            }
            begin = (usable >> bit & 1) != 0 ? x : -1;
        }
    }
}

/// Sections are short: painting them with a broad brush and never looking where they end is quicker. What is painted
/// too far is painted over by the next section, or is no usable pixel.
void GrayRow::_assign_anchors(const RowKernels& kernels, const BitRow::Range& range, float* out, uint8_t* mask) noexcept
{
    for (const PhaseSection& section : _sections) {
        paint(_section_code.data() + section.begin, section.length, section.code);
        paint(_trusted.data() + section.begin, section.length, section.state == section_open ? 0 : 255);
    }
    const int begin = range.begin;
    kernels.join(_valid.data() + begin, _trusted.data() + begin, _section_code.data() + begin, _phase.data() + begin,
        range.end - begin, out + begin, mask + begin);
}

} // namespace vexo
