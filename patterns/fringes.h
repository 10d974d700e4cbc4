#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// The frames that are projected, method by method. Every row of a frame is the same, so a frame is one row.
namespace vexo {

/// One frame, and what it is.
struct PatternFrame {
    std::string what; ///< "dark", "lit", "gray code, bit 6", "fringes, period 8 px, shift 90 deg"
    int bit = -1;     ///< of the gray code, 6 is the most significant; -1: none
    int period = 0;   ///< of fringes, projector px; 0: none
    int shift = 0;    ///< of fringes, quarter periods
    cv::Mat row;      ///< CV_8U, 1 x columns
};

/// Block matching: one evenly lit frame.
std::vector<PatternFrame> flat_frames(int columns);

/// Gray code + phase, 13 frames in capture order: 0 dark, 1 lit, 2-8 the bits of the Gray code of floor(x / period)
/// (most significant first), 9-12 the fringes
///
///     P_k = A + B cos(2 pi (x + 0.5) / period - k pi / 2)        k = 0..3, rounded to 8 bits
///
/// at integer projector column x. Throws Failure for a period below 1; see check_period() for what can be decoded.
std::vector<PatternFrame> gray_phase_frames(int columns, int period);

/// Throws Failure for a period at which the fringes are not distinct, or whose 128 fringes do not cover the columns.
void check_period(int columns, int period);

/// Columns that multi-period frames light. The decoder accepts no coordinate above 912, and after the periods' common
/// multiple the pattern repeats: columns from here on stay dark, in the lit frame, too. Were only the fringes dark
/// there, unusable pixels at that edge would take good neighbours with them.
constexpr int multi_phase_columns = 912;

/// Multi-period phase, 2 + 4 frames a period in capture order: 0 dark, 1 lit, then period by period
///
///     I_s = A - B cos(2 pi (x + 0.5) / period + s pi / 2)        s = 0..3, rounded to 8 bits
///
/// at integer projector column x; dark from multi_phase_columns on. Throws Failure for a period below 1; see
/// check_periods() for what can be decoded.
std::vector<PatternFrame> multi_phase_frames(int columns, const std::vector<int>& periods);

/// Throws Failure for periods that cannot be told apart on all columns in use.
void check_periods(const std::vector<int>& periods);

} // namespace vexo
