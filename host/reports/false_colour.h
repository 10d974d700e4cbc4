#pragma once

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// Pictures for people: false colours with the scale beside them. Values that are NaN are dark grey.
namespace vexo {

enum class Ramp {
    Rainbow, ///< for depths: neighbours differ most
    Grey,    ///< for brightness: black to white
    Signed,  ///< for errors: blue, white in the middle, red
};

/// @param values  CV_32F
/// @param low, high  values of the ends of the ramp; beyond them the end's colour
/// @param title   what it is, with its unit: "depth [mm]"
cv::Mat false_colour(
    const cv::Mat& values, double low, double high, const std::string& title, Ramp ramp = Ramp::Rainbow);

/// One entry of a legend.
struct Label {
    cv::Vec3b colour; ///< BGR
    std::string text;
};

/// @param labels  CV_8U, index into `legend`; entries without a text are left out of the legend
cv::Mat labelled(const cv::Mat& labels, const std::vector<Label>& legend, const std::string& title);

} // namespace vexo
