#pragma once

#include "host/files/json_file.h"

#include <optional>
#include <string>
#include <vector>

/// How the row error of a rig runs over its measurements: mounts creep and warm up long before a cloud looks wrong.
namespace vexo {

/// One result's word on its rows, as report.json has it.
struct RowsOfResult {
    std::string folder;
    double days = 0.0; ///< since the first of the series
    std::string date;  ///< UTC, "2026-11-26 03:22": the report's `time`, else when its file was written
    bool tested = false;
    bool off = false; ///< the result's finding warns of its rows, or their median is rows_warn_from or more
    double found = 0.0, median = 0.0, scatter = 0.0; ///< as RowError has them
};

struct Drift {
    std::vector<RowsOfResult> results; ///< by date
    /// Of the medians, px a day, by least squares, and its standard deviation; nothing: fewer than three results that
    /// were tested, or all of one minute.
    std::optional<double> slope, slope_sigma;
    std::optional<std::size_t> alarm; ///< the first result whose rows are off
    /// When the line reaches rows_warn_from, as a date; empty: it is there, does not rise by more than three standard
    /// deviations, or takes more than ten years.
    std::string expected;
    double first_day = 0.0; ///< of the first result, since 1970
};

/// Reads report.json of each folder. Throws Failure that names the one that holds no rows.
Drift find_drift(const std::vector<std::string>& folders);

Json to_json(const Drift& drift);

} // namespace vexo
