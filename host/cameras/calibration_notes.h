#pragma once

#include "host/cameras/unit.h"

#include <string>
#include <vector>

namespace vexo {

/// How good a calibration was found to be.
constexpr const char *good_calibration = "good", *usable_calibration = "usable", *bad_calibration = "not good enough";

/// What a calibration says of itself. In a camera file these are the last keys, `unit: mm` and `verdict: "usable"`: the
/// first key names a camera that is asked for without a name.
struct CalibrationNotes {
    Unit unit;
    std::string verdict; ///< one of the three above; empty: not said
};

/// The notes of camera files, which must not contradict one another. Files that are no YAML have none. Throws Failure.
CalibrationNotes read_notes(const std::vector<std::string>& files);

/// The text of a camera file with the notes at its end.
std::string with_notes(const std::string& camera_yaml, const CalibrationNotes& notes);

} // namespace vexo
