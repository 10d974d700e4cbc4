#include "decode/FringePairTable.h"

#include "base/index.h"
#include "decode/pixel_formulas.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <limits>
#include <numeric>

namespace vexo {
namespace {

constexpr int64_t max_slots = int64_t { 1 } << 24;
constexpr int max_number = std::numeric_limits<uint8_t>::max(); // largest fringe number that a byte can store
constexpr int32_t no_multiple = std::numeric_limits<int32_t>::max();

/// A stored fringe number: all eight bits of the byte count, so that period 7 reaches column 911.
int fringe_number(signed char stored) noexcept
{
    return static_cast<uint8_t>(stored);
}

/// Whole px nearest to a difference of positions, halves up. `longest` keeps the sum positive for decoded
/// phases; for loaded ones it stays within 2 periods of 0.
int rounded_difference(float a, float b, int longest) noexcept
{
    const double raised = static_cast<double>(a - b + static_cast<float>(longest)) + 0.5;
    return static_cast<int>(raised) - longest;
}

} // namespace

FringePairTable::FringePairTable(const std::vector<int>& periods)
    : count(static_cast<int32_t>(periods.size()))
    , npairs(count - 1)
    , periods(periods)
{
    maxp = _calc_maxp();
    if (count != 3 || maxp == no_multiple || *std::min_element(periods.begin(), periods.end()) < 2) return;
    const int64_t columns = int64_t { periods[1] } + periods[0] + 1;
    const int64_t rows = int64_t { periods[2] } + periods[0] + 1;
    if (columns > max_slots || rows > max_slots / columns) return;

    lower = { periods[1], periods[2] };
    range = { static_cast<int32_t>(columns), static_cast<int32_t>(rows) };
    tmax = *std::max_element(periods.begin(), periods.end());
    scale = 1.0F / static_cast<float>(count);
    _create_table();
    resolved.assign(table.size(), std::numeric_limits<float>::infinity());
    for (std::size_t slot = 0; slot < table.size(); ++slot)
        if (table[slot] != nullptr) resolved[slot] = offsets[slot];
    ok = true;
}

int32_t FringePairTable::_calc_maxp() const noexcept
{
    int64_t multiple = count == 0 ? 0 : periods[0];
    for (const int64_t period : periods) {
        if (period < 1) return no_multiple;
        multiple = std::lcm(multiple, period);
        if (multiple >= no_multiple) return no_multiple; // both factors were below 2^31: no overflow yet
    }
    return static_cast<int32_t>(multiple);
}

void FringePairTable::_create_table()
{
    table.assign(at(range[0]) * at(range[1]), nullptr);
    offsets.assign(table.size(), 0.0F);
    // Every step of the sweep raises one number, and no number above max_number is stored: that bounds how many
    // are. Pointers into the storage stay valid.
    numbers.reserve(at(count) * at(count * max_number + 1));

    std::vector<int> k(at(count), 0);
    std::vector<int> diffs(at(npairs), 0);
    _register_pair(diffs.data(), k);
    for (bool swept = false; !swept;) {
        for (int i = 0; i < count; ++i) {
            if (!_update(k, i)) continue;
            if (k[at(i)] > max_number) return; // and so is every later combination
            for (int pair = 0; pair < npairs; ++pair)
                diffs[at(pair)] = k[at(pair + 1)] * periods[at(pair + 1)] - k[0] * periods[0];
            _register_pair(diffs.data(), k);
            if (k[at(i)] * periods[at(i)] < maxp) continue;
            swept = true;
            if (i == count - 1) return;
        }
    }
}

bool FringePairTable::_update(std::vector<int>& fringes, int i) const noexcept
{
    const auto next_boundary = [&](int j) { return (int64_t { fringes[at(j)] } + 1) * periods[at(j)]; };
    for (int j = 0; j < count; ++j)
        if (next_boundary(i) > next_boundary(j)) return false;
    ++fringes[at(i)];
    return true;
}

void FringePairTable::_register_pair(const int* diffs, const std::vector<int>& fringes)
{
    int64_t sum = 0;
    bool at_the_end = true;
    for (int i = 0; i < count; ++i) {
        const int64_t start = int64_t { fringes[at(i)] } * periods[at(i)];
        sum += start;
        at_the_end = at_the_end && start == maxp;
    }
    if (at_the_end) return; // position maxp looks like position 0, which keeps its slot

    const std::size_t slot = at(diffs[0] + lower[0]) + at(diffs[1] + lower[1]) * at(range[0]);
    table[slot] = numbers.data() + numbers.size();
    for (const int fringe : fringes)
        numbers.push_back(static_cast<signed char>(fringe));
    offsets[slot] = static_cast<float>(sum) * scale;
}

float FringePairTable::unwrap(float const* phases) const
{
    const auto unresolved = static_cast<float>(maxp);
    if (!ok || !plausible_phase(phases[0]) || !plausible_phase(phases[1]) || !plausible_phase(phases[2]))
        return unresolved;
    float x[3]; // px after the start of the fringe
    for (int i = 0; i < 3; ++i)
        x[i] = static_cast<float>(periods[at(i)]) * phases[i];

    const int d0 = rounded_difference(x[1], x[0], tmax);
    const int d1 = rounded_difference(x[2], x[0], tmax);
    const int d12 = rounded_difference(x[2], x[1], tmax);

    // k_i T_i - k_0 T_0 = x_0 - x_i: the measured differences enter with reversed sign.
    const int column = lower[0] - d0;
    const int row = lower[1] - d1;
    if (column < 0 || column >= range[0] || row < 0 || row >= range[1]) return unresolved;
    const std::size_t slot = at(column) + at(row) * at(range[0]);
    const signed char* k = table[slot];
    if (k == nullptr) return unresolved;

    const int start0 = fringe_number(k[0]) * periods[0]; // px, where the three fringes start
    const int start1 = fringe_number(k[1]) * periods[1];
    const int start2 = fringe_number(k[2]) * periods[2];
    if (start1 - start0 != -d0 || start2 - start0 != -d1 || start2 - start1 != -d12) return unresolved;
    return (x[0] + x[1] + x[2]) * scale + offsets[slot]; // the mean of three estimates
}

void FringePairTable::print() const
{
    std::cout << "index\tPhaseDiff(Pn-P0)\tFringeNumbers\n";
    std::vector<signed char> tuple(at(count), 0); // an empty slot repeats the numbers before it
    for (std::size_t slot = 0; slot < table.size(); ++slot) {
        const auto index = static_cast<int>(slot);
        if (table[slot] != nullptr) tuple.assign(table[slot], table[slot] + count);
        const int column = index % range[0];
        const int row = (index - column) / range[0] % range[1];
        std::cout << index << "\t[" << column - lower[0] << ", " << row - lower[1] << "]\t[";
        for (std::size_t i = 0; i < tuple.size(); ++i)
            std::cout << (i == 0 ? "" : ", ") << static_cast<char>(tuple[i]);
        std::cout << "]" << std::endl;
    }
}

} // namespace vexo
