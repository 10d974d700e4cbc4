#include "host/measurement/row_pictures.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

/// A pixel has structure where that much of the column around it is measured: beside an outline the slow run would be
/// that of one side, which is the outline's and stands still whatever the rows do.
constexpr double least_of_column = 0.8;

/// Camera 1 where camera 0 sees the same, by the disparity of each pixel. Along a column of its own it would see other
/// places of the surface, whose shading runs otherwise where the surface is bent or turned away.
cv::Mat seen_from_camera_0(const cv::Mat& right, const cv::Mat& disparity)
{
    cv::Mat map_x(disparity.size(), CV_32F), map_y(disparity.size(), CV_32F), seen;
    for (int y = 0; y < disparity.rows; ++y)
        for (int x = 0; x < disparity.cols; ++x) {
            const float d = disparity.at<float>(y, x);
            map_x.at<float>(y, x) = std::isnan(d) ? -1.0F : static_cast<float>(x) - d;
            map_y.at<float>(y, x) = static_cast<float>(y);
        }
    cv::remap(right, seen, map_x, map_y, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    return seen;
}

/// Means over the measured pixels of a box.
cv::Mat mean_over(const cv::Mat& picture, const cv::Mat& measured, cv::Size box)
{
    cv::Mat sums, counts;
    cv::blur(picture.mul(measured), sums, box, { -1, -1 }, cv::BORDER_CONSTANT);
    cv::blur(measured, counts, box, { -1, -1 }, cv::BORDER_CONSTANT);
    return sums / cv::max(counts, 1e-6);
}

/// The disparity of surface that has texture of its own. Steps of depth are left out: what is seen around them is an
/// outline, which lies elsewhere for each camera. Narrow gaps that no step explains are filled: edges of what is
/// painted on a surface are often gaps, and without them the rims of the gaps would be compared, which stand still
/// whatever the rows do.
cv::Mat whole_surface(const cv::Mat& disparity)
{
    constexpr int side = 7;                 // px
    constexpr double most_around_gap = 1.5; // px of disparity, from the least to the largest
    constexpr double least_step = 1.0;      // px off the mean around: a step of twice that, or more
    const cv::Mat box = cv::Mat::ones(side, side, CV_8U), seen = disparity == disparity;
    cv::Mat low = disparity.clone(), high = disparity.clone(), zeroed = disparity.clone(), measured, closed;
    low.setTo(1e9, ~seen);
    high.setTo(-1e9, ~seen);
    zeroed.setTo(0, ~seen);
    cv::erode(low, low, box);
    cv::dilate(high, high, box);
    seen.convertTo(measured, CV_32F, 1.0 / 255);
    cv::morphologyEx(seen, closed, cv::MORPH_CLOSE, box);
    const cv::Mat mean = mean_over(zeroed, measured, { side, side });
    cv::Mat surface = disparity.clone(), step;
    mean.copyTo(surface, ~seen & closed & (high - low < most_around_gap));
    cv::dilate(seen & (cv::abs(disparity - mean) > least_step), step, box);
    surface.setTo(std::numeric_limits<float>::quiet_NaN(), step);
    return surface;
}

} // namespace

double least_texture(double noise)
{
    constexpr double least = 3.0; // shading alone has as much
    // Rectification and smoothing leave 0.3 of a grey value's noise. Texture of three times that, and it, correlate by
    // 0.9.
    constexpr double per_noise = 0.95;
    return std::max(least, per_noise * noise);
}

cv::Mat structure_along_y(const cv::Mat& picture, const cv::Mat& measured)
{
    cv::Mat fine;
    picture.convertTo(fine, CV_32F);
    const cv::Mat smooth = mean_over(fine, measured, { 3, 3 });
    return smooth - mean_over(smooth, measured, { 1, 2 * half_column + 1 });
}

RowPictures row_pictures(const cv::Mat& left, const cv::Mat& right, const cv::Mat& disparity, double noise)
{
    cv::Mat measured, of_column;
    const cv::Mat surface = whole_surface(disparity);
    cv::Mat(surface == surface).convertTo(measured, CV_32F, 1.0 / 255);
    cv::blur(measured, of_column, { 1, 2 * half_column + 1 });
    RowPictures p;
    cv::Mat(of_column >= least_of_column).convertTo(p.has, CV_32F, 1.0 / 255);
    p.has = p.has.mul(measured);
    p.left = structure_along_y(left, measured).mul(p.has);
    p.right = structure_along_y(seen_from_camera_0(right, surface), measured).mul(p.has);
    p.disparity = disparity;
    p.least_texture = least_texture(noise);
    return p;
}

} // namespace vexo
