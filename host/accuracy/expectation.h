#pragma once

#include "host/files/json_file.h"

#include <optional>

namespace vexo {

/// What a figure was measured as, and what lets one expect it; mm.
struct Expectation {
    double measured = 0.0;              ///< an rms over many points, or one length
    std::optional<double> noise;        ///< standard deviation by the points' sigma; nothing: they have none
    std::optional<double> calibration;  ///< the same by the calibration's share; nothing: not known, and left out
    std::optional<double> nominal = {}; ///< of one length: what it should be
};

/// "measured_mm", "predicted_mm" (the root of the squares' sum), its parts "noise_mm" and "calibration_mm", and
/// "ratio", each "unknown" where it is; "says": what the ratio means, in words. Of one length also "nominal_mm" and
/// "deviation_mm". The ratio is over predicted the rms, or the size of the deviation.
Json expectation_json(const Expectation& expectation);

} // namespace vexo
