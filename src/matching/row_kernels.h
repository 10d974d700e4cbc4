#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <vector>

/// The row kernels of the matchers: what PhaseStereoMatching and PointCloudGenerator say column by column, done for
/// a whole row at a time, with the same bits. Where the processor has AVX2 they use it.
namespace vexo {

// --- validity ----------------------------------------------------------------------------------------------

/// Writes the columns where the mask is exactly 255, ascending. @return their number, at most `cols`
int list_valid_columns(const uchar* mask, int cols, int* columns) noexcept;

// --- matching ----------------------------------------------------------------------------------------------

/// What a pixel's match has to meet; see PhaseMatchingParam.
struct MatchLimits {
    double max_phase_diff, min_disparity, max_disparity;
    double invalid; ///< disparity of a pixel without a match
    int samples;    ///< of the line fits: 3, or else 5
};

/// One row of a phase map.
struct PhaseRow {
    const uchar* mask;  ///< 255 where the pixel is valid
    const float* phase; ///< one value per column of the image
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
    bool match(const PhaseRow& left, const PhaseRow& right, int cols, const MatchLimits& limits, bool interpolate,
        double* out) noexcept;

private:
    struct Lines {
        std::vector<double> slope, intercept; ///< of the line around each position; slope <= 0: none
        void reserve(std::size_t size)
        {
            slope.resize(size);
            intercept.resize(size);
        }
    };
    bool _has_searchable_right() noexcept;
    bool _interpolate(int samples) noexcept;
    void _interpolate_left() noexcept;
    void _clamp_to_search_tree(int size) noexcept;
    void _find_nearest() noexcept;

    std::vector<int> _right_columns; ///< of each valid right pixel; a position is an index into these
    std::vector<float> _right_phase; ///< of each right position, then infinities
    std::vector<float> _thresholds;  ///< what the binary search takes them for: never falling, then infinities
    std::vector<int> _left_columns;  ///< of each left pixel to be matched
    std::vector<float> _left_phase;  ///< its phase
    std::vector<int> _line_columns;  ///< the valid left pixels, where others are matched: in between them, too
    std::vector<float> _line_phase;
    Lines _right_lines, _left_lines;
    std::vector<int> _nearest_position;
    std::vector<double> _found;
    int _right_size = 0, _left_size = 0;
    bool _rising = false;
};

// --- reprojection ------------------------------------------------------------------------------------------

/// Points of one row of disparities. @return how many are valid
///
///     (X, Y, Z, W)^T = H (column, row, disparity, 1)^T, the sums in the order ((h0 c + h1 r) + h2 d) + h3
///     point = (X, Y, Z) (1 / W);  NaN where the disparity is `invalid` or W is 0
int reproject_row(const cv::Matx44d& H, int row, const double* disparity, int cols, double invalid,
    cv::Point3_<float>* points) noexcept;

} // namespace vexo
