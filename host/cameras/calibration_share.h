#pragma once

#include "host/files/json_file.h"

#include <array>
#include <optional>
#include <string>

namespace vexo {

/// What a calibration itself is off by, as a standard deviation: beside sigma, which is the noise's share alone. It
/// follows from the covariance of the cameras, and so from how exactly the markers were found and where they were seen.
struct CalibrationShare {
    std::array<double, 3> distance_mm {}; ///< near, middle, far: depths in camera 0 at which it was asked, ascending
    std::array<double, 3> depth_mm {};    ///< of the depth of points there, rms over the picture
    std::array<double, 3> bend_mm {};     ///< the same after the best plane: what a flat wall is bent by
    std::array<double, 3> scale {};       ///< of lengths across the picture, as a share of the length
    std::string invalid; ///< why the calibration is off by more than this, in a clause; empty: nothing says so

    /// All of it at one distance.
    struct At {
        double depth_mm = 0.0, bend_mm = 0.0, scale = 0.0;
    };

    /// Between the distances linear; beyond them depth and bend grow with the square of the distance.
    At at(double distance) const;
};

/// A share, or a clause that says why it is unknown.
struct StatedShare {
    std::optional<CalibrationShare> share;
    std::string why_unknown = "its files do not say it";

    /// What predictions may be made from: nothing of a share that is not valid.
    std::optional<CalibrationShare> usable() const;
    /// Why it is unknown or not valid; empty of a good one.
    const std::string& doubt() const;
};

/// Adds it to a report: "calibration_share_mm" with the shares of a depth by `near`, `middle` and `far`, mm, the rest
/// in the order of the distances, and `invalid`; or "unknown", and why in "calibration_share_unknown".
void add_share(Json& report, const StatedShare& stated);

/// The same from a report. Throws Failure that names the file.
StatedShare read_share(const Json& report, const std::string& file);

/// What a single camera is off by: it says directions, no depths.
struct DirectionShare {
    double px = 0.0;                      ///< rms over the picture after the best rotation
    std::array<double, 3> distance_mm {}; ///< near, middle, far
    std::array<double, 3> across_mm {};   ///< the same as lengths across the line of sight there
    std::string invalid;                  ///< as CalibrationShare's
};

struct StatedDirection {
    std::optional<DirectionShare> share;
    std::string why_unknown;
};

/// "direction_share" with `px`, `distances_mm`, `across_mm` and `invalid`; or "unknown", and why in
/// "direction_share_unknown".
void add_share(Json& report, const StatedDirection& stated);

/// From what add_share() added. Throws Failure that names the file.
StatedDirection read_direction_share(const Json& report, const std::string& file);

/// "0.004 px of a direction, across the line of sight 0.002 mm at 553 mm, ..."
std::string in_words(const StatedDirection& stated);

/// "0.012 mm at 553 mm, 0.017 mm at 621 mm, 0.024 mm at 705 mm"
std::string depths_in_words(const CalibrationShare& share);

/// The same of a share that may be unknown or not valid, with the reason.
std::string in_words(const StatedShare& stated);

/// Whether the numbers can be what they stand for: finite, none negative, distances above 0 that ascend.
bool is_share(const CalibrationShare& share);

} // namespace vexo
