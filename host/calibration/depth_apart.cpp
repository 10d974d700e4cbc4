#include "host/calibration/depth_apart.h"

#include "host/calibration/rigid_motion.h"
#include "host/cameras/pair_points.h"

#include <cmath>
#include <limits>

namespace vexo {

namespace {

double rms(double squares, std::size_t count)
{
    return std::sqrt(squares / static_cast<double>(count));
}

} // namespace

DepthApart depth_apart(const std::vector<CalibratedCamera>& whole, const std::vector<CalibratedCamera>& a,
    const std::vector<CalibratedCamera>& b, const std::vector<cv::Point2d>& seen, double distance)
{
    constexpr std::size_t enough = 12;
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    if (seen.size() < enough) return { distance, nan, nan };
    const CommonPixels pixels = in_common(whole, seen, distance);
    if (pixels.of[0].size() < enough) return { distance, nan, nan };
    const std::vector<cv::Vec3d> of_a = triangulate(a, pixels), of_b = triangulate(b, pixels);
    const std::vector<cv::Vec3d> moved = moved_onto(of_a, of_b);
    double depth = 0.0, shape = 0.0;
    for (std::size_t i = 0; i < of_a.size(); ++i) {
        depth += std::pow(of_a[i][2] - of_b[i][2], 2);
        shape += cv::norm(moved[i] - of_b[i], cv::NORM_L2SQR);
    }
    return { distance, rms(depth, of_a.size()), rms(shape, of_a.size()) };
}

} // namespace vexo
