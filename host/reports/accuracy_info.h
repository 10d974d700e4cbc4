#pragma once

#include "host/cameras/calibration_share.h"
#include "host/cameras/unit.h"
#include "host/files/json_file.h"

#include <array>
#include <optional>
#include <string>
#include <utility>

/// What accuracy to expect of points at a distance, before anything is measured.
namespace vexo {

/// A rectified pair, in the unit of its calibration.
struct PairInNumbers {
    double f = 0.0, baseline = 0.0;
    Unit unit;
};

/// Adds the share to `info`, and "expected_accuracy": `distances_mm`, `share_mm`, the `noise_mm` of a usual scan, and
/// `accuracy_mm`, the root of the sum of the squares of both; "unknown" as the share is, or while it is not valid.
/// @param depth  near and far, in the unit: the distances are these and their middle; else those of the share
void add_accuracy(const PairInNumbers& pair, const StatedShare& stated,
    const std::optional<std::pair<double, double>>& depth, Json& info);

/// "0.031 mm at 600 mm, ...", of what add_accuracy() added; empty where it added no figures.
std::string accuracy_in_words(const Json& info);

} // namespace vexo
