#include "sim/scenes.h"

#include <algorithm>
#include <cmath>

namespace vexo {
namespace sim {

// The head is modelled in rounded parts, joined and hollowed with soft edges. Every part and every joint keeps the
// gradient at or below 1, so the whole is a lower bound of the distance. Lengths in mm, of a life-size small head.
namespace {
double ellipsoid(const cv::Vec3d& p, const cv::Vec3d& c, const cv::Vec3d& r) noexcept
{
    const double x = (p[0] - c[0]) / r[0], y = (p[1] - c[1]) / r[1], z = (p[2] - c[2]) / r[2];
    return (std::sqrt(x * x + y * y + z * z) - 1) * std::min({ r[0], r[1], r[2] });
}

double ball(const cv::Vec3d& p, const cv::Vec3d& c, double r) noexcept
{
    const cv::Vec3d d = p - c;
    return std::sqrt(d.dot(d)) - r;
}

/// Rod with round ends from a to b.
double rod(const cv::Vec3d& p, const cv::Vec3d& a, const cv::Vec3d& b, double r) noexcept
{
    const cv::Vec3d ab = b - a;
    const double along = std::clamp((p - a).dot(ab) / ab.dot(ab), 0.0, 1.0);
    return ball(p, a + along * ab, r);
}

/// Union with a fillet of size k. Source: Quilez, smooth minimum (cubic).
double join(double a, double b, double k) noexcept
{
    const double h = std::max(k - std::abs(a - b), 0.0) / k;
    return std::min(a, b) - h * h * h * k * (1.0 / 6);
}

double hollow(double body, double tool, double k) noexcept
{
    return -join(-body, tool, k);
}

double skull_and_face(const cv::Vec3d& p) noexcept
{
    double d = ellipsoid(p, { 0, -58, 12 }, { 56, 64, 66 });
    d = join(d, ellipsoid(p, { 0, -12, -8 }, { 43, 62, 50 }), 22);
    d = join(d, ellipsoid(p, { 0, 36, -42 }, { 15, 12, 12 }), 20);    // chin
    d = join(d, rod(p, { -26, -53, -38 }, { 26, -53, -38 }, 12), 14); // brow
    for (const double s : { -1.0, 1.0 }) {
        d = join(d, ellipsoid(p, { s * 29, -16, -34 }, { 16, 14, 14 }), 16); // cheekbone
        d = join(d, rod(p, { s * 42, -8, 0 }, { s * 25, 30, -20 }, 9), 20);  // jaw
    }
    return d;
}

double add_eye(double d, const cv::Vec3d& p, double s) noexcept
{
    d = hollow(d, ellipsoid(p, { s * 22, -36, -60 }, { 15, 11, 15 }), 9);
    d = join(d, ball(p, { s * 21, -36, -40.5 }, 11), 2.5);
    d = join(d, rod(p, { s * 12, -40, -49 }, { s * 30, -41, -46 }, 3), 3.5); // upper lid
    return join(d, rod(p, { s * 13, -31, -49 }, { s * 29, -31, -46 }, 2.2), 3.5);
}

double add_nose(double d, const cv::Vec3d& p) noexcept
{
    d = join(d, rod(p, { 0, -44, -53 }, { 0, -12, -70 }, 5), 10);
    d = join(d, ball(p, { 0, -9, -72 }, 7.5), 7);
    for (const double s : { -1.0, 1.0 }) {
        d = join(d, ellipsoid(p, { s * 9, -6, -64 }, { 5.5, 5, 7 }), 5);
        d = hollow(d, ball(p, { s * 4.5, 0, -69 }, 2.6), 2.5);
    }
    return d;
}

double add_mouth(double d, const cv::Vec3d& p) noexcept
{
    d = join(d, ellipsoid(p, { 0, 12, -50 }, { 22, 14, 10 }), 12); // the teeth behind
    d = join(d, rod(p, { -11, 10.5, -58 }, { 11, 10.5, -58 }, 3.4), 6);
    d = join(d, rod(p, { -9, 18, -57 }, { 9, 18, -57 }, 4.0), 6);
    d = hollow(d, rod(p, { -16, 14, -58 }, { 0, 14, -63.5 }, 1.0), 2.5);
    d = hollow(d, rod(p, { 16, 14, -58 }, { 0, 14, -63.5 }, 1.0), 2.5);
    return hollow(d, rod(p, { 0, 0, -64 }, { 0, 7, -64 }, 1.2), 4); // below the nose
}

double add_ear(double d, const cv::Vec3d& p, double s) noexcept
{
    double ear = ellipsoid(p, { s * 57, -32, 12 }, { 7, 20, 12 });
    ear = hollow(ear, ellipsoid(p, { s * 63, -33, 5 }, { 6, 12, 7 }), 4);
    return join(d, ear, 5);
}

double add_hair(double d, const cv::Vec3d& p) noexcept
{
    // Locks: ripples of the cap. Halved, since their slope adds to that of the cap.
    const double cap = ellipsoid(p, { 0, -66, 18 }, { 60, 62, 66 });
    const double angle = std::atan2(p[0], -(p[1] + 40));
    const double ripple = 1.3 * std::sin(15 * angle) * std::clamp((-p[1] - 40) / 40, 0.0, 1.0);
    return join(d, 0.6 * (cap - ripple), 5);
}

double torso(const cv::Vec3d& p) noexcept
{
    double d = rod(p, { 0, 20, 20 }, { 0, 112, 30 }, 33);
    d = join(d, rod(p, { -74, 130, 34 }, { 74, 130, 34 }, 32), 42);
    d = join(d, ellipsoid(p, { 0, 160, 22 }, { 100, 56, 54 }), 30);
    for (const double s : { -1.0, 1.0 }) { // muscle from the ear to the breastbone, and collar bone
        d = join(d, rod(p, { s * 38, 10, 18 }, { s * 7, 100, -10 }, 7), 12);
        d = join(d, rod(p, { s * 8, 104, -12 }, { s * 80, 100, 20 }, 6), 12);
    }
    return hollow(d, ball(p, { 0, 96, -18 }, 6), 10); // hollow of the throat
}
} // namespace

double bust_field(const cv::Vec3d& p) noexcept
{
    double d = skull_and_face(p);
    d = add_nose(add_eye(add_eye(d, p, -1), p, 1), p);
    d = add_mouth(d, p);
    d = add_hair(add_ear(add_ear(d, p, -1), p, 1), p);
    d = join(d, torso(p), 14);
    return -join(-d, -(p[1] - 148), 6); // sawn off flat below
}

} // namespace sim
} // namespace vexo
