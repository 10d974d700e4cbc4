#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// Pictures for people: false colours with the scale beside them. Values that are NaN are dark grey.
namespace vexo::app {

/// @param values  CV_32F
/// @param low, high  values of the ends of the ramp; beyond them the end's colour
/// @param title   what it is, with its unit: "depth [mm]"
cv::Mat false_colour(const cv::Mat& values, double low, double high, const std::string& title);

/// One entry of a legend.
struct Label {
    cv::Vec3b colour; ///< BGR
    std::string text;
};

/// @param labels  CV_8U, index into `legend`; entries without a text are left out of the legend
cv::Mat labelled(const cv::Mat& labels, const std::vector<Label>& legend, const std::string& title);

/// Value below which `share` of the finite entries lie; NaN when there is none.
double quantile(std::vector<float> values, double share);
/// The same of several shares, which ascend.
std::vector<double> quantiles(std::vector<float> values, const std::vector<double>& shares);
/// The finite entries of a CV_32F image.
std::vector<float> finite_values(const cv::Mat& values);

/// The picture as PNG (8 or 16 bit) or TIFF (float), in memory. Throws Failure.
std::vector<unsigned char> encode(const std::string& extension, const cv::Mat& picture);

} // namespace vexo::app
