#pragma once

#include "host/accuracy/truth.h"
#include "host/files/json_file.h"
#include "host/results/read_result.h"

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// Beyond this a point is wrong: an outlier, mm.
constexpr double outlier_mm = 1.0;

/// How far inside its edges the inner surface begins, px.
constexpr int inner_margin_px = 10;

/// Rectified pixels that look at surface which both cameras see and the projector lights.
struct VisibleSurface {
    cv::Mat all;       ///< CV_8U, 255: such pixels
    cv::Mat in_common; ///< those whose point lies in the rectified picture of camera 1, too, on whole pixels of it
};

struct Errors {
    std::vector<cv::Point3d> points; ///< cloud in raw camera-0 axes
    std::vector<float> errors;       ///< measured - true depth of each point, NaN: nothing is there
    std::vector<float> sigmas;       ///< standard deviation of each error by the result; empty: it says none
    std::vector<bool> on_visible;    ///< whether each point's pixel looks at VisibleSurface::all
    cv::Mat picture;                 ///< CV_32F, the errors at their rectified pixels
    cv::Mat measured;                ///< CV_8U, 255: rectified pixels with a point
    VisibleSurface visible;
};

/// @param result  must say its rectifying rotation
Errors find_errors(const Result& result, const Truth& truth);

/// Shares of the surface that both cameras see that were measured.
Json coverage(const Errors& errors);

/// Figures of the errors.
Json statistics(const Errors& errors);

} // namespace vexo
