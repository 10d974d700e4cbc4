#pragma once

#include <opencv2/core.hpp>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

/// Points of a row of disparities, one by one: the twin of reproject_row().
namespace plain {

/// Down to the bits, with every NaN the same: which of several NaNs a sum keeps is the compiler's choice.
inline std::vector<uint32_t> bits(const std::vector<cv::Point3f>& points)
{
    std::vector<uint32_t> all;
    for (const cv::Point3f& p : points)
        for (const float v : { p.x, p.y, p.z }) {
            uint32_t b = 0;
            std::memcpy(&b, &v, sizeof b);
            all.push_back(std::isnan(v) ? 0x7FC00000U : b);
        }
    return all;
}

inline int reproject(const cv::Matx44d& H, int row, const std::vector<double>& disparity, double invalid,
    std::vector<cv::Point3f>& points)
{
    int count = 0;
    for (std::size_t c = 0; c < disparity.size(); ++c) {
        const double pixel[] = { static_cast<double>(c), static_cast<double>(row), disparity[c], 1.0 };
        double h[4];
        for (int i = 0; i < 4; ++i) {
            h[i] = H(i, 0) * pixel[0];
            for (int j = 1; j < 4; ++j)
                h[i] = h[i] + H(i, j) * pixel[j];
        }
        points[c] = cv::Point3f(std::nanf(""), std::nanf(""), std::nanf(""));
        if (disparity[c] == invalid || h[3] == 0.0) continue;
        const double s = 1.0 / h[3];
        points[c]
            = cv::Point3f(static_cast<float>(h[0] * s), static_cast<float>(h[1] * s), static_cast<float>(h[2] * s));
        ++count;
    }
    return count;
}

} // namespace plain
