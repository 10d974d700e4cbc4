#pragma once

#include "host/cameras/unit.h"
#include "host/clouds/view.h"
#include "host/results/read_result.h"

#include <opencv2/core.hpp>

#include <optional>
#include <string>

namespace vexo {

/// A result as one view of several.
struct ResultView {
    std::string folder;
    Json report;
    Unit unit; ///< of the result; the view is in mm
    std::optional<cv::Matx33d> raw_from_rectified;
    View view;        ///< of the part of the picture that holds points, with normals
    cv::Point corner; ///< of that part in the rectified picture, px
    std::size_t points = 0;
    double share_mm = 0.0; ///< what its calibration bends surfaces by, as a standard deviation; 0: it does not say
};

/// Reads the folder of a result. Throws Failure: also where it holds no points, or no sigma.
/// @param box_mm  only points within it, x0 y0 z0 x1 y1 z1 in the axes of its cloud.ply, mm
ResultView read_view(const std::string& folder, const std::optional<cv::Vec6d>& box_mm);

} // namespace vexo
