#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

/// The frames to project, as pictures, with what each of them is.
namespace vexo::app {

/// What grey level to project for the light that each grey level stands for: makes a projector with
/// light = grey^gamma linear.
struct GammaTable {
    double gamma = 1.0;
    std::array<unsigned char, 256> grey {};
};

/// The table that undoes a gamma.
GammaTable undo_gamma(double gamma);
/// As the JSON that `vexo check` writes and load_gamma_table() reads.
std::string gamma_json(const GammaTable& table);
/// Throws Failure for a file that holds no such table.
GammaTable load_gamma_table(const std::string& path);

/// One frame: every row of the picture is the same.
struct PatternFrame {
    std::string what; ///< "dark", "lit", "gray code, bit 6", "fringes, period 8 px, shift 90 deg"
    int bit = -1;     ///< of the gray code, 6 is the most significant; -1: none
    int period = 0;   ///< of fringes, projector px; 0: none
    int shift = 0;    ///< of fringes, quarter periods
    cv::Mat row;      ///< CV_8U, 1 x columns
};

/// Gray code + phase: 13 frames. Throws Failure when seven bits do not number the projector's fringes.
std::vector<PatternFrame> gray_phase_frames(int columns, int period);

/// Throws Failure for periods that multi-period phase cannot tell apart on all columns in use.
void check_periods(const std::vector<int>& periods);

/// Multi-period phase: 14 frames. Throws Failure for periods that cannot be told apart on this projector.
std::vector<PatternFrame> multi_phase_frames(int columns, const std::vector<int>& periods);

/// All frames on one sheet, fringes enlarged, each with its number and name.
cv::Mat contact_sheet(const std::vector<PatternFrame>& frames, int rows);

/// "frame07.png".
std::string frame_name(std::size_t index);

} // namespace vexo::app
