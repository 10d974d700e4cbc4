#pragma once

/// The position of a row whose phase is nearest to a given one.
namespace vexo {

constexpr int search_window = 17; // values that are looked at together, and the one after them

/// A right row, as the search reads it.
struct Searched {
    const float* values;     ///< phases of the row, then infinities
    const float* thresholds; ///< see clamp_to_search_tree(); the values themselves where they rise
    int last;                ///< the last position
    bool rising;             ///< each value is above the one before it
};

/// The nearest positions of many phases, each as PhaseStereoMatching::_nearest() finds it; -1 outside the row's range.
///
/// @param phases     left phases, no NaN
/// @param positions  out, `size` of them
void find_nearest(const float* phases, int size, const Searched& row, int* positions) noexcept;

/// A binary search in a row that does not rise everywhere is a search in one that does: an entry outside the range
/// that the entries above it in the search tree leave open decides like the bound of that range next to it. So the
/// row, clamped from the top of the tree down, never falls, and the search ends between the same two entries. Only a
/// phase that equals a threshold has to be searched for.
///
/// @param phase       phases of the row's `size` positions, no NaN
/// @param thresholds  out, `size` of them, then search_window infinities
void clamp_to_search_tree(const float* phase, int size, float* thresholds) noexcept;

} // namespace vexo
