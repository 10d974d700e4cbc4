#pragma once

#include "host/files/json_file.h"

#include <opencv2/core.hpp>

#include <array>
#include <optional>
#include <string>

namespace vexo {

/// What a calibration itself is off by, as a standard deviation: beside sigma, which is the noise's share alone. It is
/// half of what two calibrations differ by that were made from one half of the views each. With errors that do not
/// depend on each other each half has twice the variance of the whole, and the difference of both four times. What is
/// wrong with all views alike (a bent board, a wrong pitch) is not in it.
struct CalibrationShare {
    std::array<double, 3> distance_mm {}; ///< near, middle, far: depths in camera 0 at which it was asked, ascending
    std::array<double, 3> depth_mm {};    ///< of the depth of points there, rms over the picture
    std::array<double, 3> bend_mm {};     ///< the same after the best plane: what a flat wall is bent by
    std::array<double, 3> scale {};       ///< of lengths across the picture, as a share of the length

    /// All of it at one distance.
    struct At {
        double depth_mm = 0.0, bend_mm = 0.0, scale = 0.0;
    };

    /// Between the distances linear; beyond them depth and bend grow with the square of the distance.
    At at(double distance) const;
};

/// The lines of a camera file that say it.
std::string share_yaml(const CalibrationShare& share);

/// From the keys of a camera file; nothing when it has none of them. Throws Failure that names the file when a key is
/// missing, holds anything but three numbers, or numbers that no calibration has.
std::optional<CalibrationShare> read_share(const cv::FileStorage& yaml, const std::string& file);

/// As reports say it: the shares of a depth by `near`, `middle` and `far`, mm, and the rest in the order of the
/// distances.
Json to_json(const CalibrationShare& share);

/// "unknown" where there is none.
Json to_json(const std::optional<CalibrationShare>& share);

/// The same from a report; nothing for "unknown" and for reports that do not say it. Throws Failure that names the
/// file.
std::optional<CalibrationShare> read_share(const Json& report, const std::string& key, const std::string& file);

/// "0.012 mm at 553 mm, 0.017 mm at 621 mm, 0.024 mm at 705 mm"
std::string depths_in_words(const CalibrationShare& share);

/// Whether the numbers can be what they stand for: finite, none negative, distances above 0 that ascend.
bool is_share(const CalibrationShare& share);

} // namespace vexo
