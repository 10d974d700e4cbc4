#pragma once

#include "host/files/json_file.h"

#include <string>
#include <vector>

namespace vexo {

/// One figure of several compared results.
struct FigureRow {
    std::string name;
    std::vector<std::string> cells; ///< with their units; empty where a result has none
};

/// compare.json and acceptance.json of a result's folder as one, at least one of which is there. Throws Failure, also
/// for a file that holds none of the figures.
Json read_comparison(const std::string& folder);

/// The figures that at least one of the results has.
std::vector<FigureRow> figure_rows(const std::vector<Json>& comparisons);

} // namespace vexo
