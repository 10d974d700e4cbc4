#pragma once

#include "patterns/fringes.h"

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

/// All frames on one sheet, fringes enlarged, each with its number and name.
cv::Mat contact_sheet(const std::vector<PatternFrame>& frames, int rows);

/// "frame07.png".
std::string frame_name(std::size_t index);

} // namespace vexo::app
