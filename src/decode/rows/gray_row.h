#pragma once

#include "decode/rows/bit_row.h"
#include "decode/rows/kernels.h"
#include "decode/sections.h"

#include <array>
#include <vector>

namespace vexo {

/// Counts the codes of one section after another, run by run. Few sections have more than two runs: those are all that
/// CodeVote is asked about.
class RunVote {
public:
    /// Another run of equal codes; the run before had another code.
    void add(uint8_t code, int length) noexcept
    {
        if (_runs < 2) {
            _first[_runs++] = { code, length };
            return;
        }
        if (_runs == 2)
            for (const Run& run : _first)
                _vote.add(run.code, run.length);
        _runs = 3;
        _vote.add(code, length);
    }
    /// Fills in what the pixels of the section say, and begins anew.
    void close(PhaseSection& section) noexcept
    {
        section.ncodes = _runs < 3 ? static_cast<int>(_runs) : _vote.ndistinct();
        const Run& longer = _first[_runs == 2 && _first[1].length > _first[0].length ? 1 : 0];
        section.code = _runs < 3 ? int16_t { longer.code } : _vote.take_winner();
        _runs = 0;
    }

private:
    struct Run {
        uint8_t code;
        int length;
    };
    std::array<Run, 2> _first {};
    std::size_t _runs = 0; ///< 3: more than two
    CodeVote _vote;
};

/// Gray code + phase of one image row after another, from frames to coordinates in one pass: 13 bytes in and a
/// float and a mask byte out a pixel, everything between stays in the first-level cache.
///
/// The same results as GrayPhaseDecoder::preproc() and unwrap(). There a section counts positions in a list of
/// valid columns; as its columns are adjacent, it is a range of columns just as well, and that is what it is here.
///
/// Threads  none; every thread has its own.
class GrayRow {
public:
    struct Limits {
        ByteLimits pixels;
        int anchor_length;
        int reject_length;
        int code_spread;
    };
    struct GrayFrameRows {
        const uint8_t* black;
        const uint8_t* white;
        std::array<const uint8_t*, 7> planes;
        std::array<const uint8_t*, 4> steps;
    };

    /// Room for rows of this width; allocates only when it grows.
    void resize(int cols);
    /// @param out   coordinates, fringe periods; 0 where there is none
    /// @param mask  255 where there is one, else 0
    void decode(const RowKernels& kernels, const float* angles, const GrayFrameRows& frames, const Limits& limits,
        float* out, uint8_t* mask) noexcept;

private:
    void _decode_range(const RowKernels& kernels, const float* angles, const GrayFrameRows& frames,
        const BitRow::Range& range) noexcept;
    /// Cuts the row where `_rises` says, and counts the codes of every section.
    void _find_sections() noexcept;
    void _assign_anchors(const RowKernels& kernels, const BitRow::Range& range, float* out, uint8_t* mask) noexcept;

    int _cols = 0;
    std::vector<uint8_t> _valid, _code, _rise_flags, _change_flags; ///< 255 or 0, except the codes; padded with 0
    std::vector<uint8_t> _section_code, _trusted; ///< what each pixel's section is; with room for 16 more
    std::vector<float> _phase;
    BitRow _rises;   ///< the pixel goes on with the section of its left neighbour
    BitRow _changes; ///< its code differs from the neighbour's
    BitRow _usable;
    std::vector<PhaseSection> _sections;
    RunVote _vote;
};

} // namespace vexo
