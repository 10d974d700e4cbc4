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

/// BGR of the 256 levels of a ramp, CV_8UC3, one row.
cv::Mat colour_table(Ramp ramp);

/// The values at the ends of a ramp; beyond them is the end's colour.
struct Span {
    double low = 0.0, high = 1.0;
};

/// From low to high; around them where they are one value, or none.
Span shown_span(double low, double high);

/// Nearly all of the values: from the 0.5 % to the 99.5 % quantile, and a little more.
Span most_of(const cv::Mat& values);

/// A round value on a ramp.
struct Tick {
    double at; ///< 0 at its low end, 1 at its high one
    std::string text;
};

std::vector<Tick> ticks_of(const Span& span);

/// The picture alone, CV_8UC3.
/// @param values  CV_32F
cv::Mat coloured(const cv::Mat& values, const Span& span, Ramp ramp);

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

/// The picture alone, CV_8UC3.
cv::Mat coloured_labels(const cv::Mat& labels, const std::vector<Label>& legend);

/// @param labels  CV_8U, index into `legend`; entries without a text are left out of the legend
cv::Mat labelled(const cv::Mat& labels, const std::vector<Label>& legend, const std::string& title);

} // namespace vexo
