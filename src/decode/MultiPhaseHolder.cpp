#include "decode/MultiPhaseHolder.h"

#include "base/index.h"

#include <algorithm>
#include <omp.h>

namespace vexo {
namespace {

/// Coordinates of one row through the table; columns that are not resolved leave `cols`.
void resolve_row(const FringePairTable& table, const float* phase0, const float* phase1, const float* phase2,
    std::vector<int>& cols, float* out) noexcept
{
    std::size_t kept = 0;
    for (const int x : cols) {
        const float phases[3] = { phase0[x], phase1[x], phase2[x] };
        const float coordinate = table.unwrap(phases);
        if (coordinate > MultiPhaseHolder::max_coordinate) continue;
        out[x] = coordinate;
        cols[kept++] = x;
    }
    cols.resize(kept);
}

/// Prunes one row as if _rm_extreme_value() ran over it until nothing changes, in time proportional to the
/// row's length. A round removes all entries that their list neighbours contradict; in the next round only
/// entries can be contradicted anew that have lost a neighbour. So the entries form a linked list, and each
/// round looks at a work list: the first at all entries, any other at the neighbours of what went last.
/// Buffers are reserved by the constructor and serve one row after another.
class Pruning {
public:
    explicit Pruning(int cols)
    {
        for (std::vector<int>* list : { &_previous, &_next, &_suspects, &_removed })
            list->reserve(at(cols));
        _state.reserve(at(cols));
    }

    void prune(const float* row, std::vector<int>& cols) noexcept
    {
        int left = static_cast<int>(cols.size());
        _start(left);
        while (left >= 3) {
            _collect_removed(row, cols);
            if (_removed.empty()) break;
            left -= static_cast<int>(_removed.size());
            _unlink_removed();
        }
        _keep_linked(left < 3, cols);
    }

private:
    enum State : char { linked, suspected, gone };

    void _start(int count) noexcept
    {
        _previous.resize(at(count));
        _next.resize(at(count));
        _suspects.resize(at(count));
        _state.assign(at(count), suspected);
        for (int i = 0; i < count; ++i) {
            _previous[at(i)] = i - 1;
            _next[at(i)] = i + 1 < count ? i + 1 : -1;
            _suspects[at(i)] = i;
        }
    }
    void _collect_removed(const float* row, const std::vector<int>& cols) noexcept
    {
        const auto value = [&](int i) { return row[cols[at(i)]]; };
        _removed.clear();
        for (const int i : _suspects) {
            _state[at(i)] = linked;
            const int p = _previous[at(i)];
            const int n = _next[at(i)];
            if ((p < 0 || value(p) <= value(i)) && (n < 0 || value(i) <= value(n))) continue;
            _removed.push_back(i);
        }
    }
    void _unlink_removed() noexcept
    {
        _suspects.clear();
        for (const int i : _removed)
            _state[at(i)] = gone;
        for (const int i : _removed) {
            const int p = _previous[at(i)];
            const int n = _next[at(i)];
            if (p >= 0) _next[at(p)] = n;
            if (n >= 0) _previous[at(n)] = p;
            _suspect(p);
            _suspect(n);
        }
    }
    void _suspect(int i) noexcept
    {
        if (i < 0 || _state[at(i)] != linked) return;
        _state[at(i)] = suspected;
        _suspects.push_back(i);
    }
    void _keep_linked(bool none, std::vector<int>& cols) const noexcept
    {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < cols.size() && !none; ++i)
            if (_state[i] != gone) cols[kept++] = cols[i];
        cols.resize(kept);
    }

    std::vector<int> _previous; ///< list neighbour on the left, -1: none
    std::vector<int> _next;     ///< list neighbour on the right, -1: none
    std::vector<int> _suspects; ///< entries to look at in this round
    std::vector<int> _removed;  ///< entries that go in this round
    std::vector<State> _state;
};

} // namespace

MultiPhaseHolder::MultiPhaseHolder(
    int camera_id, int frame_count, const MultiPhaseMatchingParam* params, const FringePairTable* table, int nperiods)
    : ProjectorPositions(camera_id, frame_count)
    , params(params)
    , pair_table(table)
    , phases(at(nperiods))
{
}

int MultiPhaseHolder::_rm_extreme_value(float* row, std::vector<int>& cols)
{
    const std::size_t count = cols.size();
    if (count < 3) return 3;
    std::size_t kept = 0;
    float before = row[cols[0]]; // value of the entry before, kept or not; of the first entry its own
    for (std::size_t i = 0; i < count; ++i) {
        const float here = row[cols[i]];
        const float after = i + 1 < count ? row[cols[i + 1]] : here;
        if (before <= here && here <= after) cols[kept++] = cols[i];
        before = here;
    }
    cols.resize(kept);
    return static_cast<int>(kept);
}

void MultiPhaseHolder::_remove_extreme_value()
{
    std::vector<Pruning> prunings; // one for each thread
    prunings.reserve(at(omp_get_max_threads()));
    while (prunings.size() < at(omp_get_max_threads()))
        prunings.emplace_back(unwrapped.cols);
    const int rows = std::min(unwrapped.rows, static_cast<int>(valid.size()));
#pragma omp parallel for schedule(dynamic, 16) // each thread writes its own rows of `valid`
    for (int y = 0; y < rows; ++y)
        prunings[at(omp_get_thread_num())].prune(unwrapped[y], valid[at(y)]);
}

void MultiPhaseHolder::unwrap()
{
    const bool resolvable = pair_table != nullptr && pair_table->ok && phases.size() >= 3 && complete()
        && phases[0].size() == input_size() && valid.size() == at(input_size().height);
    if (!resolvable) {
        _drop_results();
        return;
    }
    unwrapped.create(phases[0].size());
    unwrapped.setTo(0);
    const int rows = unwrapped.rows;
#pragma omp parallel for schedule(dynamic, 16) // each thread writes its own rows of `unwrapped` and `valid`
    for (int y = 0; y < rows; ++y)
        resolve_row(*pair_table, phases[0][y], phases[1][y], phases[2][y], valid[at(y)], unwrapped[y]);
    _remove_extreme_value();
    valid2vmask();
}

} // namespace vexo
