#pragma once

#include <array>
#include <string>

namespace vexo {

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

} // namespace vexo
