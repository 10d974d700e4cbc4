#include "decode/GrayPhaseHolder.h"

#include "decode/phase_kernels.h"

#include <algorithm>
#include <cmath>
#include <omp.h>

namespace vexo {
namespace {

std::size_t at(int position) noexcept
{
    return static_cast<std::size_t>(position);
}

/// Counts the period numbers of one section after another; the counters are cleared by what was counted.
class CodeVote {
public:
    void add(uint8_t code) noexcept
    {
        if (_counters[code]++ == 0) _distinct[_ndistinct++] = code;
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
    PhaseSection& operator[](int i) const noexcept { return _sections[at(i)]; }
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
        return _sections[at(i)].length > _anchor_length && _sections[at(i)].ncodes <= _code_spread;
    }
    std::vector<PhaseSection>& _sections;
    int _anchor_length;
    int _code_spread;
};

/// Codes must not fall from left to right. Where candidate a is followed by b with a smaller code, the group
/// around b (going on while codes are below a's) stands against the group around a (going back while codes
/// are above b's): the shorter one in pixels loses, the earlier one on a tie.
void settle_fall(const Candidates& candidates, int a, int b) noexcept
{
    const int code_a = candidates[a].code;
    const int code_b = candidates[b].code;
    int forward = 0; // px; a row has fewer than 2^15
    int backward = 0;
    int behind = b; // first candidate behind b's group
    for (; behind < candidates.count() && candidates[behind].code < code_a; behind = candidates.after(behind))
        forward += candidates[behind].length;
    int ahead = a; // last candidate ahead of a's group
    for (; ahead >= 0 && candidates[ahead].code > code_b; ahead = candidates.before(ahead))
        backward += candidates[ahead].length;

    if (forward >= backward)
        for (int i = a; i != ahead; i = candidates.before(i))
            candidates[i].state = section_open;
    else
        for (int i = b; i != behind; i = candidates.after(i))
            candidates[i].state = section_open;
}

/// One row while its gaps are filled.
struct Row {
    const std::vector<int>& cols;
    const float* phase;
    const uint8_t* gray;
    float* out;
    std::vector<int>& done;

    /// The coordinate of a pixel that lies nearer to `target`: with the section's code, or with its own, which
    /// a tie prefers.
    float nearer(float target, int code, int position) const noexcept
    {
        const int x = cols[at(position)];
        const float a = static_cast<float>(code) + phase[x];
        const float b = phase[x] + static_cast<float>(gray[x]);
        return std::fabs(target - a) < std::fabs(target - b) ? a : b;
    }
    void assign(int position, float coordinate) const noexcept
    {
        out[cols[at(position)]] = coordinate;
        done[at(position)] = 1;
    }
    bool usable(int position) const noexcept { return plausible_phase(phase[cols[at(position)]]); }
};

/// Fills an open section from its right end: every pixel strictly between `last` and the pixel after it.
/// @param ref  coordinate on the right of the section; leaves as that of the leftmost pixel filled
void fill_backwards(const Row& row, const PhaseSection& section, float last, float& ref) noexcept
{
    for (int p = section.end - 1; p >= section.begin; --p) {
        const float choice = row.nearer(ref, section.code, p);
        if (!(last < choice && choice < ref) || !row.usable(p)) continue;
        row.assign(p, choice);
        ref = choice;
    }
}

/// Fills an open section behind the last anchor: every pixel above the one before it.
void fill_forwards(const Row& row, const PhaseSection& section, float& last) noexcept
{
    for (int p = section.begin; p < section.end; ++p) {
        const float choice = row.nearer(last, section.code, p);
        if (!(choice > last) || !row.usable(p)) continue;
        row.assign(p, choice);
        last = choice;
    }
}

/// Keeps the columns whose pixel got a coordinate.
void keep_done(std::vector<int>& cols, const std::vector<int>& done) noexcept
{
    std::size_t kept = 0;
    for (std::size_t p = 0; p < cols.size(); ++p)
        if (done[p] == 1) cols[kept++] = cols[p];
    cols.resize(kept);
}

/// What a thread needs for its rows; reserved before the loop.
struct Scratch {
    std::vector<PhaseSection> sections;
    std::vector<int> done;
};

/// Limits of one unwrap(), copied: the record may change.
struct UnwrapLimits {
    int anchor_length;
    int reject_length;
    int code_spread;
};

void unwrap_row(std::vector<int>& cols, const float* phase, const uint8_t* gray, const UnwrapLimits& limits,
    Scratch& scratch, float* out) noexcept
{
    if (cols.empty()) return;
    std::vector<PhaseSection>& sections = scratch.sections;
    std::vector<int>& done = scratch.done;
    sections.clear();
    done.assign(cols.size(), 0);

    GrayPhaseHolder::_split_phase(sections, cols, phase, gray);
    GrayPhaseHolder::_unwrap_positive(sections, done, cols, phase, out, limits.anchor_length, limits.code_spread);
    for (PhaseSection& section : sections)
        if (section.length <= limits.reject_length) section.state = section_rejected;
    GrayPhaseHolder::_unwrap_negative(sections, done, cols, phase, out, gray);
    keep_done(cols, done);
}

} // namespace

GrayPhaseHolder::GrayPhaseHolder(int camera_id, int frame_count, const GrayPhaseMatchingParam* params)
    : ProjectorPositions(camera_id, frame_count)
    , params(params)
{
}

void GrayPhaseHolder::_split_phase(
    std::vector<PhaseSection>& sections, std::vector<int>& cols, float const* phase_row, unsigned char const* gray_row)
{
    CodeVote vote;
    const auto rises = [&](int p) {
        const int before = cols[at(p - 1)];
        const int here = cols[at(p)];
        return here - before == 1 && phase_row[here] >= phase_row[before];
    };
    const int count = static_cast<int>(cols.size());
    for (int begin = 0, end = 0; begin < count; begin = end) {
        end = begin + 1;
        while (end < count && rises(end))
            ++end;
        for (int p = begin; p < end; ++p)
            vote.add(gray_row[cols[at(p)]]);
        const int ncodes = vote.ndistinct();
        sections.push_back({ begin, end, end - begin, ncodes, vote.take_winner(), section_open });
    }
}

int GrayPhaseHolder::_unwrap_positive(std::vector<PhaseSection>& sections, std::vector<int>& done,
    std::vector<int>& cols, float const* phase_row, float* out_row, int anchor_length, int code_spread)
{
    const Candidates candidates(sections, anchor_length, code_spread);
    for (int i = candidates.after(-1); i < candidates.count(); i = candidates.after(i))
        candidates[i].state = section_anchor;
    int a = candidates.after(-1);
    for (int b = candidates.after(a); b < candidates.count(); a = b, b = candidates.after(b))
        if (candidates[a].code > candidates[b].code) settle_fall(candidates, a, b);

    int assigned = 0;
    for (const PhaseSection& section : sections) {
        if (section.state == section_open) continue;
        for (int p = section.begin; p < section.end; ++p) {
            const int x = cols[at(p)];
            if (!plausible_phase(phase_row[x])) continue;
            out_row[x] = phase_row[x] + static_cast<float>(section.code);
            done[at(p)] = 1;
            ++assigned;
        }
    }
    return assigned;
}

void GrayPhaseHolder::_unwrap_negative(std::vector<PhaseSection>& sections, std::vector<int>& done,
    std::vector<int>& cols, float const* phase_row, float* out_row, unsigned char const* gray_row)
{
    const Row row { cols, phase_row, gray_row, out_row, done };
    float last = 0.0F;
    auto section = sections.begin();
    while (section != sections.end()) {
        if (section->state == section_anchor) last = out_row[cols[at(section->end - 1)]];
        if (section->state != section_open) {
            ++section;
            continue;
        }
        const auto anchor
            = std::find_if(section, sections.end(), [](const PhaseSection& s) { return s.state == section_anchor; });
        if (anchor == sections.end()) {
            for (; section != anchor; ++section)
                if (section->state == section_open) fill_forwards(row, *section, last);
            return;
        }
        float ref = out_row[cols[at(anchor->begin)]];
        for (auto s = anchor; s-- != section;)
            if (s->state == section_open) fill_backwards(row, *s, last, ref);
        section = anchor;
    }
}

void GrayPhaseHolder::unwrap()
{
    const bool decoded = params != nullptr && complete() && phase.size() == input_size() && gray.size() == phase.size()
        && valid.size() == static_cast<std::size_t>(phase.rows);
    if (!decoded) {
        _drop_results();
        return;
    }
    const UnwrapLimits limits { params->anchor_length, params->reject_length, params->code_spread };
    unwrapped.create(phase.size());
    unwrapped.setTo(0);
    std::vector<Scratch> scratch(static_cast<std::size_t>(omp_get_max_threads()));
    for (Scratch& s : scratch) {
        s.sections.reserve(static_cast<std::size_t>(phase.cols));
        s.done.reserve(static_cast<std::size_t>(phase.cols));
    }
    const int rows = phase.rows;
#pragma omp parallel for schedule(dynamic, 16) // each thread writes its own rows of `unwrapped` and `valid`
    for (int y = 0; y < rows; ++y)
        unwrap_row(valid[at(y)], phase[y], gray[y], limits, scratch[at(omp_get_thread_num())], unwrapped[y]);
    valid2vmask();
}

} // namespace vexo
