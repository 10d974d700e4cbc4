#pragma once

#include "matching/valid_columns.h"

#include <cstddef>
#include <vector>

/// What PhaseStereoMatching says column by column, done for a whole row at a time, with the same bits.
namespace vexo {

/// What a pixel's match has to meet; see PhaseMatchingParam.
struct MatchLimits {
    double max_phase_diff, min_disparity, max_disparity;
    double invalid; ///< disparity of a pixel without a match
    int samples;    ///< that a line goes through: 3, or else 5
};

/// Matches rows as PhaseStereoMatching::_get_linedisparity(_interpo) does. The line through a right column's
/// neighbours is fitted once, not for each left pixel that meets it, and the search walks along both rows.
///
/// One object is the memory of one thread.
class RowMatcher {
public:
    /// Room for rows of this length, so that match() allocates nothing.
    void reserve(int cols);

    /// @param cols  columns of the image, at most as many as there is room for
    /// @param out   disparities, one per column; already filled with limits.invalid
    /// @return      false, and nothing written, for rows that only the plain form can match: with a NaN, or ending
    ///              at infinity
    bool match(const PhaseMapRow& left, const PhaseMapRow& right, int cols, const MatchLimits& limits, bool interpolate,
        double* out) noexcept;

private:
    struct Lines {
        std::vector<double> slope, intercept; ///< the line around each position; slope <= 0: none
        void reserve(std::size_t size)
        {
            slope.resize(size);
            intercept.resize(size);
        }
    };
    bool _has_searchable_right() noexcept;
    bool _interpolate(int samples) noexcept;
    void _interpolate_left() noexcept;
    void _find_nearest() noexcept;

    std::vector<int> _right_columns; ///< the valid right pixels; a position is an index into these
    std::vector<float> _right_phase; ///< one for each right position, then infinities
    std::vector<float> _thresholds;  ///< what the binary search makes of them: never falling, then infinities
    std::vector<int> _left_columns;  ///< the left pixels to be matched
    std::vector<float> _left_phase;  ///< its phase
    std::vector<int> _line_columns;  ///< the valid left pixels, where others are matched: in between them, too
    std::vector<float> _line_phase;
    Lines _right_lines, _left_lines;
    std::vector<int> _nearest_position;
    std::vector<double> _found;
    int _right_size = 0, _left_size = 0;
    bool _rising = false;
};

} // namespace vexo
