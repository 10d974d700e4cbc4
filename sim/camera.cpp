#include "sim/camera.h"

#include <algorithm>
#include <cmath>

namespace vexo {
namespace sim {

cv::Vec2d Camera::_distort(const cv::Vec2d& ab) const noexcept
{
    const double a = ab[0], b = ab[1], r2 = a * a + b * b;
    const double radial = 1 + r2 * (D[0] + r2 * (D[1] + r2 * D[4]));
    return { a * radial + 2 * D[2] * a * b + D[3] * (r2 + 2 * a * a),
        b * radial + D[2] * (r2 + 2 * b * b) + 2 * D[3] * a * b };
}

cv::Matx22d Camera::_distort_jacobian(const cv::Vec2d& ab) const noexcept
{
    const double a = ab[0], b = ab[1], r2 = a * a + b * b;
    const double radial = 1 + r2 * (D[0] + r2 * (D[1] + r2 * D[4]));
    const double slope = D[0] + r2 * (2 * D[1] + r2 * 3 * D[4]); // d radial / d r2
    const double mixed = 2 * a * b * slope + 2 * D[2] * a + 2 * D[3] * b;
    return { radial + 2 * a * a * slope + 2 * D[2] * b + 6 * D[3] * a, mixed, mixed,
        radial + 2 * b * b * slope + 6 * D[2] * b + 2 * D[3] * a };
}

cv::Vec2d Camera::project(const cv::Vec3d& point) const noexcept
{
    const cv::Vec3d p = to_camera(point);
    const cv::Vec2d d = _distort({ p[0] / p[2], p[1] / p[2] });
    return { K(0, 0) * d[0] + K(0, 2), K(1, 1) * d[1] + K(1, 2) };
}

bool Camera::sees(const cv::Vec3d& point) const noexcept
{
    const cv::Vec3d p = to_camera(point);
    if (!(p[2] > 0)) return false;
    const double half_diagonal = 0.5 * std::hypot(size.width / K(0, 0), size.height / K(1, 1));
    if (std::hypot(p[0], p[1]) > 1.5 * half_diagonal * p[2]) return false;
    const cv::Vec2d pixel = project(point);
    return pixel[0] >= -0.5 && pixel[0] < size.width - 0.5 && pixel[1] >= -0.5 && pixel[1] < size.height - 0.5;
}

cv::Vec2d Camera::normalized(const cv::Vec2d& pixel) const noexcept
{
    const cv::Vec2d wanted((pixel[0] - K(0, 2)) / K(0, 0), (pixel[1] - K(1, 2)) / K(1, 1));
    cv::Vec2d ab = wanted;
    for (int i = 0; i < 20; ++i) {
        const cv::Vec2d rest = wanted - _distort(ab);
        if (std::abs(rest[0]) + std::abs(rest[1]) < 1e-15) break;
        const cv::Matx22d J = _distort_jacobian(ab);
        const double det = J(0, 0) * J(1, 1) - J(0, 1) * J(1, 0);
        ab[0] += (J(1, 1) * rest[0] - J(0, 1) * rest[1]) / det;
        ab[1] += (J(0, 0) * rest[1] - J(1, 0) * rest[0]) / det;
    }
    return ab;
}

PixelRay Camera::ray(const cv::Vec2d& pixel) const noexcept
{
    const cv::Vec2d ab = normalized(pixel);
    const cv::Matx22d J = _distort_jacobian(ab);
    const double det = J(0, 0) * J(1, 1) - J(0, 1) * J(1, 0);
    const cv::Vec3d along_x(J(1, 1) / det / K(0, 0), -J(1, 0) / det / K(0, 0), 0);
    const cv::Vec3d along_y(-J(0, 1) / det / K(1, 1), J(0, 0) / det / K(1, 1), 0);
    const cv::Matx33d rig_from_camera = R.t();
    return { rig_from_camera * cv::Vec3d(ab[0], ab[1], 1), { rig_from_camera * along_x, rig_from_camera * along_y } };
}

cv::Matx33d look_along(const cv::Vec3d& forward, double roll_rad)
{
    const cv::Vec3d z = cv::normalize(forward);
    const cv::Vec3d x = cv::normalize(cv::Vec3d(0, 1, 0).cross(z));
    const cv::Vec3d y = z.cross(x);
    const double c = std::cos(roll_rad), s = std::sin(roll_rad);
    const cv::Matx33d axes(x[0], x[1], x[2], y[0], y[1], y[2], z[0], z[1], z[2]);
    return cv::Matx33d(c, s, 0, -s, c, 0, 0, 0, 1) * axes;
}

} // namespace sim
} // namespace vexo
