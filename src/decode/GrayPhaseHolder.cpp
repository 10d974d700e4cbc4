#include "decode/GrayPhaseHolder.h"

#include "base/index.h"
#include "decode/pixel_formulas.h"

#include <cmath>

#include <omp.h>

namespace vexo {
namespace {

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
        return here - before == 1 && std::isgreaterequal(phase_row[here], phase_row[before]); // NaN raises nothing
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
    choose_anchors(sections, anchor_length, code_spread);
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
    const auto mark = [&done](int position) { done[at(position)] = 1; };
    SectionRow<std::vector<int>, decltype(mark)> { cols, phase_row, gray_row, out_row, mark }.fill(sections);
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
