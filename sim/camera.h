#pragma once

#include <array>

#include <opencv2/core.hpp>

namespace vexo {
namespace sim {

/// Viewing ray of one pixel and how it turns from pixel to pixel, in rig axes.
struct PixelRay {
    cv::Vec3d direction;                ///< not normalised: 1 along the camera's z axis
    std::array<cv::Vec3d, 2> per_pixel; ///< change of `direction` for one pixel along x and along y
};

/// Camera (or projector) of the virtual rig: pinhole with Brown-Conrady distortion.
///
///     (X, Y, Z) = R x_rig + T        a = X / Z, b = Y / Z, r2 = a^2 + b^2
///     a' = a (1 + k1 r2 + k2 r2^2 + k3 r2^3) + 2 p1 a b + p2 (r2 + 2 a^2)
///     b' = b (1 + k1 r2 + k2 r2^2 + k3 r2^3) + p1 (r2 + 2 b^2) + 2 p2 a b
///     pixel = (fx a' + cx, fy b' + cy)
///
/// Pixels have their centres at integers. Lengths are mm. Source: Brown, Photogramm. Eng. 37 (1971) 855.
/// Written apart from the measuring library on purpose: the truth may not share its faults.
class Camera {
public:
    cv::Size size;                ///< px
    cv::Matx33d K;                ///< fx, fy, cx, cy in px; no skew
    std::array<double, 5> D = {}; ///< k1 k2 p1 p2 k3
    cv::Matx33d R;                ///< camera axes from rig axes
    cv::Vec3d T;                  ///< mm; camera position of the rig's origin

    /// Optical centre in the rig frame, mm.
    cv::Vec3d centre() const noexcept { return -(R.t() * T); }

    /// A rig point in camera axes.
    cv::Vec3d to_camera(const cv::Vec3d& point) const noexcept { return R * point + T; }

    /// Pixel of a rig point. Meaningful for points in front of the camera only (Z > 0).
    cv::Vec2d project(const cv::Vec3d& point) const noexcept;

    /// Whether a rig point lies in front of the camera and falls onto its pixels. Points so far outside the
    /// field of view that the distortion polynomial folds them back are not seen.
    bool sees(const cv::Vec3d& point) const noexcept;

    /// Undistorted image coordinates (a, b) of a pixel: Newton's method to the last digits of a double.
    cv::Vec2d normalized(const cv::Vec2d& pixel) const noexcept;

    /// Ray through a pixel, with its derivatives.
    PixelRay ray(const cv::Vec2d& pixel) const noexcept;

private:
    cv::Vec2d _distort(const cv::Vec2d& ab) const noexcept;
    cv::Matx22d _distort_jacobian(const cv::Vec2d& ab) const noexcept;
};

/// Rotation whose z axis looks along `forward` and whose x axis stays in the rig's x-z plane, as far as that goes;
/// `roll_rad` then turns it about z. Rows are the camera's axes in rig coordinates.
cv::Matx33d look_along(const cv::Vec3d& forward, double roll_rad);

} // namespace sim
} // namespace vexo
