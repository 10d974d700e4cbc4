#pragma once

#include "host/accuracy/acceptance_request.h"
#include "host/cameras/calibration_share.h"
#include "host/clouds/ball_fit.h"
#include "host/clouds/sighted.h"
#include "host/results/read_result.h"
#include "host/verdict/finding.h"

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// The points that a body is looked for in, and what is known of their errors.
struct Judged {
    std::string folder;          ///< for failures
    std::vector<Sighted> points; ///< of the region
    bool sigma_known = false;
    bool smoothed = false;      ///< neighbours are off alike, and bodies are rounded off
    double without_sigma = 0.0; ///< share of the region's points that have none, and are left out
    double unsure = 0.0;        ///< the same of those with five times the middle sigma or more: edges, mostly
    Sight sight;
    std::optional<CalibrationShare> share; ///< nothing: unknown, or not valid
    StatedShare stated_share;              ///< as the report has it

    /// Whether sigma lets one expect how far off a length is that is fitted to many points.
    bool predicts_lengths() const { return sigma_known && !smoothed; }
};

/// Throws Failure when fewer than `fewest` points lie in the region.
Judged judged_points(
    const std::string& folder, const Result& result, const AcceptanceRequest& request, std::size_t fewest);

/// What a body's check found. The names of the figures that the limit bounds come with each of them.
struct BodyCheck {                    // NOLINT(bugprone-exception-escape): JSON is said to throw when it is moved
    Json figures;                     ///< that go into "acceptance"
    std::vector<std::string> bounded; ///< their keys, as JSON pointers
    std::vector<Finding> findings;
};

BodyCheck check_plane(const Judged& judged);
BodyCheck check_balls(const Judged& judged, const std::vector<double>& lengths);
BodyCheck check_reference(const Judged& judged, const std::string& path);

/// More outliers than this are a finding.
constexpr double many_outliers = 0.05;

/// Adds a finding when they are many.
void judge_outliers(double share, const std::string& what, BodyCheck& check);

} // namespace vexo
