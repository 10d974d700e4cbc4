#include "host/accuracy/errors.h"

#include "base/statistics.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

cv::Point3d rotate(const cv::Matx33d& rotation, const cv::Point3d& p)
{
    const cv::Vec3d r = rotation * cv::Vec3d(p.x, p.y, p.z);
    return { r[0], r[1], r[2] };
}

/// 255 when all four raw pixels around a raw position are of the mask, as rectification mixes them.
uchar mask_at(const cv::Mat& mask, const cv::Point2d& p)
{
    const double x = std::floor(p.x), y = std::floor(p.y);
    if (!(x >= 0 && y >= 0 && x + 1 < mask.cols && y + 1 < mask.rows)) return 0;
    const cv::Mat four = mask(cv::Rect(static_cast<int>(x), static_cast<int>(y), 2, 2));
    return cv::countNonZero(four == 255) == 4 ? 255 : 0;
}

VisibleSurface rectified_visible(const Result& r, const Truth& t)
{
    const cv::Matx33d cam1_from_cam0 = t.camera1.R * t.camera0.R.t();
    const cv::Vec3d cam0_in_cam1 = t.camera1.T - cam1_from_cam0 * t.camera0.T;
    VisibleSurface visible { cv::Mat::zeros(r.size, CV_8U), cv::Mat::zeros(r.size, CV_8U) };
    std::vector<cv::Point3d> rays(static_cast<std::size_t>(r.size.width)), points(rays);
    for (int y = 0; y < r.size.height; ++y) {
        for (int x = 0; x < r.size.width; ++x)
            rays[static_cast<std::size_t>(x)]
                = rotate(*r.raw_from_rectified, { (x - r.cx) / r.f, (y - r.cy) / r.f, 1.0 });
        const std::vector<cv::Point2d> pixels = project(rays, t.camera0);
        for (std::size_t i = 0; i < rays.size(); ++i)
            points[i] = rays[i] * (depth_at(t.depth, pixels[i]) / rays[i].z);
        const std::vector<cv::Point2d> pixels1 = project(points, t.camera1, cam1_from_cam0, cam0_in_cam1);
        for (int x = 0; x < r.size.width; ++x) {
            const auto i = static_cast<std::size_t>(x);
            if (mask_at(t.visible, pixels[i]) == 0) continue;
            visible.all.at<uchar>(y, x) = 255;
            const double depth = depth_at(t.depth, pixels[i]) / rays[i].z; // in rectified axes
            const double x1 = x - r.disparity_at_infinity - r.f * r.baseline / depth;
            if (x1 >= 0.0 && x1 <= r.size.width - 1.0 && mask_at(t.visible1, pixels1[i]) != 0)
                visible.in_common.at<uchar>(y, x) = 255;
        }
    }
    return visible;
}

double covered(const cv::Mat& measured, const cv::Mat& visible)
{
    return static_cast<double>(cv::countNonZero(measured & visible)) / std::max(1, cv::countNonZero(visible));
}

} // namespace

Errors find_errors(const Result& r, const Truth& t)
{
    Errors e;
    for (const cv::Point3f& p : r.cloud)
        e.points.push_back(rotate(*r.raw_from_rectified, cv::Point3d(p)));
    const std::vector<cv::Point2d> pixels = project(e.points, t.camera0);
    e.picture = cv::Mat(r.size, CV_32F, cv::Scalar(static_cast<double>(std::nanf(""))));
    e.measured = cv::Mat::zeros(r.size, CV_8U);
    e.visible = rectified_visible(r, t);
    e.on_visible.resize(r.cloud.size());
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        const double error = e.points[i].z - depth_at(t.depth, pixels[i]);
        e.errors.push_back(static_cast<float>(error));
        const cv::Point3d p(r.cloud[i]);
        if (!r.sigma.empty()) // both depths are of one ray
            e.sigmas.push_back(static_cast<float>(static_cast<double>(r.sigma[i]) * e.points[i].z / p.z));
        const double x = std::round(r.f * p.x / p.z + r.cx), y = std::round(r.f * p.y / p.z + r.cy);
        if (!(x >= 0 && y >= 0 && x < r.size.width && y < r.size.height)) continue;
        e.picture.at<float>(static_cast<int>(y), static_cast<int>(x)) = static_cast<float>(error);
        e.measured.at<uchar>(static_cast<int>(y), static_cast<int>(x)) = 255;
        e.on_visible[i] = e.visible.all.at<uchar>(static_cast<int>(y), static_cast<int>(x)) != 0;
    }
    return e;
}

Json coverage(const Errors& e)
{
    const VisibleSurface& visible = e.visible;
    cv::Mat inner; // the pixels well inside what both rectified pictures hold
    const int side = 2 * inner_margin_px + 1;
    cv::erode(
        visible.in_common, inner, cv::Mat::ones(side, side, CV_8U), { -1, -1 }, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
    return { { "visible_pixels", cv::countNonZero(visible.all) }, { "coverage", covered(e.measured, visible.all) },
        { "common_pixels", cv::countNonZero(visible.in_common) },
        { "common_coverage", covered(e.measured, visible.in_common) }, { "inner_pixels", cv::countNonZero(inner) },
        { "inner_coverage", covered(e.measured, inner) } };
}

Json statistics(const Errors& e)
{
    std::vector<float> sizes, inliers;
    double squares = 0.0, inlier_squares = 0.0, inlier_sum = 0.0;
    std::size_t beside = 0;
    for (const float error : e.errors) {
        if (std::isnan(error)) {
            ++beside;
            continue;
        }
        const auto value = static_cast<double>(error);
        sizes.push_back(std::abs(error));
        squares += value * value;
        if (std::abs(value) > outlier_mm) continue;
        inliers.push_back(error);
        inlier_squares += value * value;
        inlier_sum += value;
    }
    const auto count = static_cast<double>(sizes.size()), good = static_cast<double>(inliers.size());
    const auto all = static_cast<double>(e.errors.size());
    return { { "points", e.errors.size() }, { "points_beside_the_surface", beside },
        { "rms", std::sqrt(squares / count) }, { "rms_without_outliers", std::sqrt(inlier_squares / good) },
        { "p95", quantile(sizes, 0.95) }, { "bias", inlier_sum / good }, { "median", quantile(inliers, 0.5) },
        { "outliers", (all - good) / all } };
}

} // namespace vexo
