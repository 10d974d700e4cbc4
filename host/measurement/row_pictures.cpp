#include "host/measurement/row_pictures.h"

#include "base/parallel.h"

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
/// @param disparity  of a part of the picture that begins at `origin`
cv::Mat seen_from_camera_0(const cv::Mat& right, const cv::Mat& disparity, cv::Point origin)
{
    cv::Mat map_x(disparity.size(), CV_32F), map_y(disparity.size(), CV_32F), seen;
    for (int y = 0; y < disparity.rows; ++y) {
        const float* const d = disparity.ptr<float>(y);
        float* const to = map_x.ptr<float>(y);
        for (int x = 0; x < disparity.cols; ++x)
            to[x] = d[x] == d[x] ? static_cast<float>(x + origin.x) - d[x] : -1.0F;
        map_y.row(y).setTo(y + origin.y);
    }
    cv::remap(right, seen, map_x, map_y, cv::INTER_LINEAR, cv::BORDER_REPLICATE);
    return seen;
}

/// Means over the measured pixels of boxes of one size.
class MeansOver {
public:
    MeansOver(const cv::Mat& measured, cv::Size box)
        : _measured(measured)
        , _box(box)
        , _counts(_blurred(measured))
    {
        cv::max(_counts, 1e-6, _counts);
    }

    cv::Mat of(const cv::Mat& picture) const
    {
        cv::Mat means = _blurred(picture.mul(_measured));
        cv::divide(means, _counts, means);
        return means;
    }

private:
    cv::Mat _blurred(const cv::Mat& picture) const
    {
        cv::Mat blurred;
        cv::blur(picture, blurred, _box, { -1, -1 }, cv::BORDER_CONSTANT);
        return blurred;
    }

    cv::Mat _measured;
    cv::Size _box;
    cv::Mat _counts;
};

/// structure_along_y() of several pictures.
class Structure {
public:
    explicit Structure(const cv::Mat& measured)
        : _near(measured, { 3, 3 })
        , _column(measured, { 1, 2 * half_column + 1 })
    {
    }

    cv::Mat along_y(const cv::Mat& picture) const
    {
        cv::Mat fine;
        picture.convertTo(fine, CV_32F);
        const cv::Mat smooth = _near.of(fine);
        return smooth - _column.of(smooth);
    }

private:
    MeansOver _near, _column;
};

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
    const cv::Mat mean = MeansOver(measured, { side, side }).of(zeroed);
    cv::Mat surface = disparity.clone(), step;
    mean.copyTo(surface, ~seen & closed & (high - low < most_around_gap));
    cv::dilate(seen & (cv::abs(disparity - mean) > least_step), step, box);
    surface.setTo(std::numeric_limits<float>::quiet_NaN(), step);
    return surface;
}

/// Where a surface is measured, and as far around it as anything here reaches.
cv::Rect surroundings_of(const cv::Mat& disparity)
{
    constexpr int reach = 2 * half_column + 16;
    const cv::Rect measured = cv::boundingRect(cv::Mat(disparity == disparity));
    const cv::Rect around(measured.tl() - cv::Point(reach, reach), measured.size() + cv::Size(2 * reach, 2 * reach));
    return around & cv::Rect({}, disparity.size());
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
    return Structure(measured).along_y(picture);
}

RowPictures row_pictures(const cv::Mat& left, const cv::Mat& right, const cv::Mat& whole_disparity, double noise)
{
    RowPictures p { cv::Mat::zeros(left.size(), CV_32F), cv::Mat::zeros(left.size(), CV_32F),
        cv::Mat::zeros(left.size(), CV_32F), whole_disparity, least_texture(noise) };
    const cv::Rect part = surroundings_of(whole_disparity);
    const cv::Mat disparity = whole_disparity(part).clone(); // filters must not look beyond the part
    cv::Mat measured, of_column, has;
    const cv::Mat surface = whole_surface(disparity);
    cv::Mat(surface == surface).convertTo(measured, CV_32F, 1.0 / 255);
    cv::blur(measured, of_column, { 1, 2 * half_column + 1 });
    cv::Mat(of_column >= least_of_column).convertTo(has, CV_32F, 1.0 / 255);
    p.has(part) = has.mul(measured);
    const Structure structure(measured);
    in_parallel(2, [&](std::size_t camera) {
        const cv::Mat seen = camera == 0 ? left(part) : seen_from_camera_0(right, surface, part.tl());
        (camera == 0 ? p.left : p.right)(part) = structure.along_y(seen).mul(p.has(part));
    });
    return p;
}

} // namespace vexo
