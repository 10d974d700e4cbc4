#pragma once

#include "host/cameras/unit.h"
#include "host/files/json_file.h"
#include "host/measurement/sigma.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>
#include <vector>

namespace vexo {

/// A measurement as its folder says it: the geometry of rectified camera 0, the points, and the noise of the fringes.
struct Result {
    std::string report_path;
    Json report;
    std::string method;
    cv::Size size; ///< of the rectified picture
    double f = 0.0, cx = 0.0, cy = 0.0, baseline = 0.0, disparity_at_infinity = 0.0;
    std::optional<cv::Matx33d> raw_from_rectified; ///< nothing: measured with an hmat set, which does not say it
    std::vector<cv::Point3f> cloud;                ///< rectified camera-0 axes, in the unit of the report
    std::vector<float> sigma; ///< of the depth of each point; NaN: of this point none; empty: of none
    double decode_and_match_seconds = 0.0;
    /// Standard deviation of the depth by first order, see predicted_noise(); nothing where there is no model of the
    /// noise (block matching) or no picture to read it from (decoded maps)
    std::optional<double> predicted_noise;
};

/// Throws Failure when the result holds no points: with the cause and its remedy, as far as the report says them.
void refuse_empty(const Result& result);

/// Of all lengths; mm where the report names none. Throws Failure.
Unit unit_of(const Result& result);

/// Whether neighbours are off alike, because they were smoothed, by the report of a result.
bool is_smoothed(const Json& report);

/// Reads report.json and cloud.ply. Throws Failure that names the file.
Result read_result(const std::string& folder);

} // namespace vexo
