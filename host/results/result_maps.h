#pragma once

#include "host/results/read_result.h"

#include <opencv2/core.hpp>

#include <string>

namespace vexo {

/// The points of a result at their rectified pixels.
struct ResultMaps {
    cv::Mat_<cv::Vec3f> points; ///< rectified camera-0 axes, in the result's unit; NaN: none
    cv::Mat_<float> sigma;      ///< of the depth, NaN: not known; empty: the result has none
    cv::Mat texture;            ///< CV_8U
};

/// Reads depth.tiff and texture.png beside the cloud. Throws Failure that names the file, also when they are not of
/// the same measurement as the cloud.
ResultMaps read_maps(const std::string& folder, const Result& result);

} // namespace vexo
