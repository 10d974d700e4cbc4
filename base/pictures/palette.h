#pragma once

#include <opencv2/core.hpp>

#include <vector>

namespace vexo {
namespace picture_file {

/// A picture of few colours: which of them each pixel has.
struct Indexed {
    cv::Mat indices; ///< CV_8U
    std::vector<cv::Vec3b> colours;
};

/// A picture of blue, green and red, 8 bits each. Without indices where it has more than 256 colours.
Indexed indexed(const cv::Mat& picture);

} // namespace picture_file
} // namespace vexo
