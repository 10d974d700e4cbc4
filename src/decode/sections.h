#pragma once

#include "base/index.h"
#include "decode/pixel_formulas.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

/// What happens to the sections of one row after they are found: the vote on anchors, and the filling between
/// them. Written for both forms of a row, `valid` lists and whole rows of columns.
namespace vexo {

/// A run of adjacent pixels with rising phase within one image row. Positions index the row's `valid` list.
struct PhaseSection {
    int32_t begin;  ///< first position
    int32_t end;    ///< one past the last position
    int32_t length; ///< end - begin
    int32_t ncodes; ///< how many different period numbers its pixels carry
    int16_t code;   ///< the most frequent of them; among equals the one met first
    uint16_t state; ///< one of section_open, section_anchor, section_rejected
};

constexpr uint16_t section_open = 0;         ///< not yet assigned
constexpr uint16_t section_anchor = 1;       ///< trusted: all its pixels belong to period `code`
constexpr uint16_t section_rejected = 65535; ///< too short to be used

/// Counts the period numbers of one section after another; the counters are cleared by what was counted.
class CodeVote {
public:
    void add(uint8_t code, int count = 1) noexcept
    {
        if (_counters[code] == 0) _distinct[_ndistinct++] = code;
        _counters[code] += count;
    }
    int ndistinct() const noexcept { return static_cast<int>(_ndistinct); }
    /// The code met most often; among equals the one met first. Clears the vote.
    int16_t take_winner() noexcept
    {
        const uint8_t* first = _distinct.data();
        const uint8_t* winner = std::max_element(
            first, first + _ndistinct, [this](uint8_t a, uint8_t b) { return _counters[a] < _counters[b]; });
        const int16_t code = *winner;
        for (std::size_t i = 0; i < _ndistinct; ++i)
            _counters[_distinct[i]] = 0;
        _ndistinct = 0;
        return code;
    }

private:
    std::array<int, 256> _counters {};
    std::array<uint8_t, 256> _distinct {};
    std::size_t _ndistinct = 0;
};

/// Which sections can become anchors, and the way from one to the next. Sections do not change sides while
/// they are voted on, so one that has lost a vote still takes part in the next.
class Candidates {
public:
    Candidates(std::vector<PhaseSection>& sections, int anchor_length, int code_spread) noexcept
        : _sections(sections)
        , _anchor_length(anchor_length)
        , _code_spread(code_spread)
    {
    }
    int count() const noexcept { return static_cast<int>(_sections.size()); }
    PhaseSection& operator[](int i) const noexcept { return _sections[static_cast<std::size_t>(i)]; }
    /// The candidate nearest to section i on the right, count() when there is none; from -1 the first.
    int after(int i) const noexcept
    {
        do
            ++i;
        while (i < count() && !_holds(i));
        return i;
    }
    /// The candidate nearest to section i on the left, -1 when there is none.
    int before(int i) const noexcept
    {
        do
            --i;
        while (i >= 0 && !_holds(i));
        return i;
    }

private:
    bool _holds(int i) const noexcept
    {
        const PhaseSection& section = (*this)[i];
        return section.length > _anchor_length && section.ncodes <= _code_spread;
    }
    std::vector<PhaseSection>& _sections;
    int _anchor_length;
    int _code_spread;
};

/// Codes must not fall from left to right. Where candidate a is followed by b with a smaller code, the group
/// around b (going on while codes are below a's) stands against the group around a (going back while codes
/// are above b's): the shorter one in pixels loses, the earlier one on a tie.
inline void settle_fall(const Candidates& candidates, int a, int b) noexcept
{
    const int code_a = candidates[a].code;
    const int code_b = candidates[b].code;
    int forward = 0; // px; a row has fewer than 2^15
    int backward = 0;
    int after_b = b; // first candidate after b's group
    for (; after_b < candidates.count() && candidates[after_b].code < code_a; after_b = candidates.after(after_b))
        forward += candidates[after_b].length;
    int before_a = a; // last candidate before a's group
    for (; before_a >= 0 && candidates[before_a].code > code_b; before_a = candidates.before(before_a))
        backward += candidates[before_a].length;

    if (forward >= backward)
        for (int i = a; i != before_a; i = candidates.before(i))
            candidates[i].state = section_open;
    else
        for (int i = b; i != after_b; i = candidates.after(i))
            candidates[i].state = section_open;
}

/// Chooses the anchors of a row: the candidates that no vote has set back.
inline void choose_anchors(std::vector<PhaseSection>& sections, int anchor_length, int code_spread) noexcept
{
    const Candidates candidates(sections, anchor_length, code_spread);
    for (int i = candidates.after(-1); i < candidates.count(); i = candidates.after(i))
        candidates[i].state = section_anchor;
    int a = candidates.after(-1);
    for (int b = candidates.after(a); b < candidates.count(); a = b, b = candidates.after(b))
        if (candidates[a].code > candidates[b].code) settle_fall(candidates, a, b);
}

/// One row while its gaps are filled. Sections count positions in `cols`.
/// @tparam Columns  column of a position, by [ ]
/// @tparam Done     is called with each position that has got its coordinate
template <class Columns, class Done> struct SectionRow {
    const Columns& cols;
    const float* phase;
    const uint8_t* gray;
    float* out;
    Done done;

    int column(int position) const noexcept { return cols[at(position)]; }
    /// The coordinate of a pixel that lies nearer to `target`: with the section's code, or with its own, which
    /// a tie prefers.
    float nearer(float target, int code, int position) const noexcept
    {
        const int x = column(position);
        const float a = static_cast<float>(code) + phase[x];
        const float b = phase[x] + static_cast<float>(gray[x]);
        return std::fabs(target - a) < std::fabs(target - b) ? a : b;
    }
    void assign(int position, float coordinate) const noexcept
    {
        out[column(position)] = coordinate;
        done(position);
    }
    bool usable(int position) const noexcept { return plausible_phase(phase[column(position)]); }

    /// Fills an open section from its right end: every pixel strictly between `last` and the pixel after it.
    /// @param ref  coordinate on the right of the section; leaves as that of the leftmost pixel filled
    void fill_backwards(const PhaseSection& section, float last, float& ref) const noexcept
    {
        for (int p = section.end - 1; p >= section.begin; --p) {
            if (!usable(p)) continue;
            const float choice = nearer(ref, section.code, p);
            if (!(last < choice && choice < ref)) continue;
            assign(p, choice);
            ref = choice;
        }
    }
    /// Fills an open section after the last anchor: every pixel above the one before it.
    void fill_forwards(const PhaseSection& section, float& last) const noexcept
    {
        for (int p = section.begin; p < section.end; ++p) {
            if (!usable(p)) continue;
            const float choice = nearer(last, section.code, p);
            if (!(choice > last)) continue;
            assign(p, choice);
            last = choice;
        }
    }
    /// Fills the open sections: those before an anchor backwards from it, those after the last one forwards.
    void fill(const std::vector<PhaseSection>& sections) const noexcept
    {
        float last = 0.0F;
        auto section = sections.begin();
        while (section != sections.end()) {
            if (section->state == section_anchor) last = out[column(section->end - 1)];
            if (section->state != section_open) {
                ++section;
                continue;
            }
            const auto anchor = std::find_if(
                section, sections.end(), [](const PhaseSection& s) { return s.state == section_anchor; });
            if (anchor == sections.end()) {
                for (; section != anchor; ++section)
                    if (section->state == section_open) fill_forwards(*section, last);
                return;
            }
            float ref = out[column(anchor->begin)];
            for (auto s = anchor; s-- != section;)
                if (s->state == section_open) fill_backwards(*s, last, ref);
            section = anchor;
        }
    }
};

} // namespace vexo
