#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <vector>

namespace vexo {

/// Points of one run, one per rectified pixel, row after row; NaN where nothing was measured.
struct Cloud {
    cv::Size size;
    std::vector<cv::Point3f> points;
    int count = 0;

    bool measured(int y, int x) const { return point(y, x).z == point(y, x).z; }
    const cv::Point3f& point(int y, int x) const
    {
        return points[static_cast<std::size_t>(y) * static_cast<std::size_t>(size.width) + static_cast<std::size_t>(x)];
    }
};

} // namespace vexo
