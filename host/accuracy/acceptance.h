#pragma once

#include "base/on_step.h"
#include "host/accuracy/acceptance_request.h"
#include "host/files/json_file.h"
#include "host/verdict/finding.h"

#include <string>
#include <vector>

namespace vexo {

/// A result judged without a truth.
struct Accepted { // NOLINT(bugprone-exception-escape): JSON is said to throw when it is moved
    Json figures; ///< acceptance.json
    std::vector<Finding> findings;
    std::string beyond; ///< what lies beyond the limit, one line; empty: nothing
};

/// Steps that accept() announces.
constexpr int acceptance_steps = 2;

/// Measures a body in a result: a plane's flatness, a ball's diameter, diameters and distance of two balls, or the
/// distances to a reference cloud; each against what the points' sigma and the calibration's share let expect.
/// @param result_folder  of vexo measure
/// Throws UsageFailure when why_invalid() has a fault, Failure for what cannot be read or answered: no points, too few
/// of them in the region, no such body there, a reference of another place; and Stopped.
Accepted accept(const std::string& result_folder, const AcceptanceRequest& request, const OnStep& on_step = {});

} // namespace vexo
