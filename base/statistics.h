#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {

/// Value below which `share` of the finite entries lie; NaN when there is none.
double quantile(std::vector<float> values, double share);

/// The same of several shares, which ascend.
std::vector<double> quantiles(std::vector<float> values, const std::vector<double>& shares);

/// The finite entries of a CV_32F image.
std::vector<float> finite_values(const cv::Mat& values);

/// The middle of the finite values; NaN: there is none.
double median(std::vector<double> values);

} // namespace vexo
