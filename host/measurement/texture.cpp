#include "host/measurement/texture.h"

#include "base/parallel.h"
#include "base/statistics.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <vector>

namespace vexo {

namespace {

/// Mean square of a picture's slope along the row, over 5 x 5 px.
cv::Mat slope_energy(const cv::Mat& picture)
{
    constexpr int patch = 5;
    cv::Mat slope, energy;
    cv::Sobel(picture, slope, CV_32F, 1, 0, 1, 0.5); // half the difference of both neighbours
    cv::boxFilter(slope.mul(slope), energy, CV_32F, { patch, patch });
    return energy;
}

} // namespace

double picture_noise(const cv::Mat& picture)
{
    constexpr int block = 16;
    constexpr double least = 1.0 / 12.0, mask_energy = 36.0, share = 0.1;
    const cv::Mat mask = (cv::Mat_<float>(3, 3) << 1, -2, 1, -2, 4, -2, 1, -2, 1);
    cv::Mat response;
    cv::filter2D(picture, response, CV_32F, mask);
    std::vector<float> squares;
    for (int y = 0; y + block <= picture.rows; y += block)
        for (int x = 0; x + block <= picture.cols; x += block) {
            const cv::Mat part = response(cv::Rect(x, y, block, block));
            squares.push_back(static_cast<float>(part.dot(part) / (block * block * mask_energy)));
        }
    return squares.empty() ? least : std::max(least, quantile(squares, share));
}

cv::Mat lacks_texture(
    const std::array<cv::Mat, 2>& rectified, const std::array<double, 2>& noise, const cv::Mat& disparity)
{
    constexpr double least_energy = 2.0; // in variances of the noise: 0.2 px
    const std::array<cv::Mat, 2> energy { slope_energy(rectified[0]), slope_energy(rectified[1]) };
    const std::array<float, 2> least { static_cast<float>(least_energy * noise[0]),
        static_cast<float>(least_energy * noise[1]) };
    cv::Mat lacking = cv::Mat::zeros(disparity.size(), CV_8U);
    in_parallel(static_cast<std::size_t>(disparity.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < disparity.cols; ++x) {
            const float d = disparity.at<float>(y, x);
            if (d != d) continue;
            const int partner = std::clamp(cvRound(static_cast<float>(x) - d), 0, disparity.cols - 1);
            if (energy[0].at<float>(y, x) < least[0] || energy[1].at<float>(y, partner) < least[1])
                lacking.at<uchar>(y, x) = 255;
        }
    });
    return lacking;
}

} // namespace vexo
