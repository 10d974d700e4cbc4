#include "host/calibration/depth_apart.h"

#include "host/calibration/rigid_motion.h"

#include <opencv2/calib3d.hpp>

#include <array>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

using Pixels = std::vector<cv::Point2d>;

/// Pixels of both cameras that show the same points.
struct CommonPixels {
    std::array<Pixels, 2> of;
};

/// Pose of camera 1 in the axes of camera 0: x1 = R x0 + T.
struct Relative {
    explicit Relative(const std::vector<CalibratedCamera>& pair)
        : R(pair[1].R * pair[0].R.t())
        , T(pair[1].T - R * pair[0].T)
    {
    }
    cv::Matx33d R;
    cv::Vec3d T;
};

/// Pixels of camera 0, and where camera 1 sees what is there at that depth.
CommonPixels in_common(const std::vector<CalibratedCamera>& pair, const Pixels& of_camera0, double depth)
{
    Pixels rays, seen;
    cv::undistortPoints(of_camera0, rays, pair[0].K, pair[0].D);
    std::vector<cv::Point3d> points;
    for (const cv::Point2d& ray : rays)
        points.emplace_back(ray.x * depth, ray.y * depth, depth);
    const Relative cam1(pair);
    cv::Vec3d turn;
    cv::Rodrigues(cam1.R, turn);
    cv::projectPoints(points, turn, cam1.T, pair[1].K, pair[1].D, seen);
    const cv::Rect2d picture({ 0.0, 0.0 }, cv::Size2d(pair[1].size));
    CommonPixels common;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (!picture.contains(seen[i])) continue;
        common.of[0].push_back(of_camera0[i]);
        common.of[1].push_back(seen[i]);
    }
    return common;
}

std::vector<cv::Vec3d> triangulate(const std::vector<CalibratedCamera>& pair, const CommonPixels& pixels)
{
    std::array<Pixels, 2> rays;
    for (std::size_t k = 0; k < 2; ++k)
        cv::undistortPoints(pixels.of[k], rays[k], pair[k].K, pair[k].D);
    const Relative cam1(pair);
    cv::Matx34d P1;
    cv::hconcat(cam1.R, cam1.T, P1);
    cv::Mat homogeneous;
    cv::triangulatePoints(cv::Matx34d::eye(), P1, rays[0], rays[1], homogeneous);
    std::vector<cv::Vec3d> points;
    for (int i = 0; i < homogeneous.cols; ++i) {
        const cv::Vec4d h(homogeneous.col(i));
        points.emplace_back(h[0] / h[3], h[1] / h[3], h[2] / h[3]);
    }
    return points;
}

double rms(double squares, std::size_t count)
{
    return std::sqrt(squares / static_cast<double>(count));
}

/// rms of what the plane through the differences of the depths leaves of them.
double bend_between(const std::vector<cv::Vec3d>& a, const std::vector<cv::Vec3d>& b)
{
    const auto n = static_cast<int>(a.size());
    cv::Mat_<double> A(n, 3), differences(n, 1), plane;
    for (int i = 0; i < n; ++i) {
        const auto k = static_cast<std::size_t>(i);
        A(i, 0) = 1.0;
        A(i, 1) = a[k][0];
        A(i, 2) = a[k][1];
        differences(i) = a[k][2] - b[k][2];
    }
    cv::solve(A, differences, plane, cv::DECOMP_SVD);
    return cv::norm(A * plane - differences) / std::sqrt(static_cast<double>(n));
}

/// rms by which lengths across the picture differ, as a share of each: between points that are spread over it.
double lengths_apart(const std::vector<cv::Vec3d>& a, const std::vector<cv::Vec3d>& b)
{
    constexpr std::size_t stride = 7919; // a prime: from each point to one elsewhere
    double squares = 0.0;
    std::size_t pairs = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const std::size_t j = (i * stride + a.size() / 2) % a.size();
        const double length = cv::norm(b[i] - b[j]);
        if (!(length > 0.1 * b[i][2])) continue; // of short ones the noise of the fit alone would show
        squares += std::pow(cv::norm(a[i] - a[j]) / length - 1.0, 2.0);
        ++pairs;
    }
    return pairs > 0 ? rms(squares, pairs) : 0.0;
}

} // namespace

DepthApart depth_apart(const std::vector<CalibratedCamera>& whole, const std::vector<CalibratedCamera>& a,
    const std::vector<CalibratedCamera>& b, const std::vector<cv::Point2d>& seen, double distance)
{
    constexpr std::size_t enough = 12;
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    if (seen.size() < enough) return { distance, nan, nan, nan, nan };
    const CommonPixels pixels = in_common(whole, seen, distance);
    if (pixels.of[0].size() < enough) return { distance, nan, nan, nan, nan };
    const std::vector<cv::Vec3d> of_a = triangulate(a, pixels), of_b = triangulate(b, pixels);
    const std::vector<cv::Vec3d> moved = moved_onto(of_a, of_b);
    double depth = 0.0, shape = 0.0;
    for (std::size_t i = 0; i < of_a.size(); ++i) {
        depth += std::pow(of_a[i][2] - of_b[i][2], 2);
        shape += cv::norm(moved[i] - of_b[i], cv::NORM_L2SQR);
    }
    return { distance, rms(depth, of_a.size()), rms(shape, of_a.size()), bend_between(of_a, of_b),
        lengths_apart(of_a, of_b) };
}

} // namespace vexo
