#pragma once

#include "host/clouds/disparity_scale.h"

#include <opencv2/core.hpp>
#include <opencv2/core/affine.hpp>

#include <cmath>

/// Surface as several places see it, each in a map of its own.
namespace vexo {

/// What one camera measured: maps of equal size, in the camera's axes, mm.
struct View {
    cv::Mat_<cv::Vec3f> points;  ///< NaN: none
    cv::Mat_<cv::Vec3f> normals; ///< of unit length, towards the camera
    cv::Mat_<float> sigma;       ///< standard deviation of the depth; NaN: not known
    cv::Mat_<uchar> grey;
    DisparityScale scale; ///< pixels of the maps for points

    bool measured(const cv::Point& p) const { return points(p)[2] == points(p)[2]; }

    /// Standard deviation of a point along a direction of unit length: an error of the depth is one along the line of
    /// sight. NaN where it is not known.
    float sigma_along(const cv::Point& p, const cv::Vec3f& direction) const
    {
        const cv::Vec3f& point = points(p);
        return sigma(p) * std::abs(direction.dot(point)) / point[2];
    }
};

/// The inverse of a rigid motion.
inline cv::Affine3d inverse_of(const cv::Affine3d& motion)
{
    const cv::Matx33d R = motion.rotation().t();
    return { R, -(R * motion.translation()) };
}

/// How the points of one view are seen by the camera of another.
class Sight {
public:
    Sight(const cv::Affine3d& to_from_own, const View& to)
        : _turn(cv::Matx33f(to_from_own.rotation()))
        , _shift(cv::Vec3f(to_from_own.translation()))
        , _from_camera(_turn.t() * _shift)
        , _to(to)
        , _f(static_cast<float>(to.scale.f))
        , _cx(static_cast<float>(to.scale.cx))
        , _cy(static_cast<float>(to.scale.cy))
    {
    }

    /// A point in the other's axes, and the pixel there.
    struct Seen {
        cv::Vec3f place;
        cv::Point pixel;
    };

    /// False where the surface shows the other camera its back or is seen too much from the side, or the point lies
    /// outside the map or where the other measured nothing.
    bool see(const cv::Vec3f& point, const cv::Vec3f& normal, Seen& seen) const
    {
        constexpr float least_cosine = 0.17F; // 80 degrees
        const cv::Vec3f sight = point + _from_camera;
        const float facing = normal.dot(sight);
        if (!(facing < 0.0F) || facing * facing < least_cosine * least_cosine * sight.dot(sight)) return false;
        seen.place = _turn * point + _shift;
        if (!(seen.place[2] > 0.0F)) return false;
        const float x = _f * seen.place[0] / seen.place[2] + _cx, y = _f * seen.place[1] / seen.place[2] + _cy;
        if (!(x > -0.5F && y > -0.5F)) return false;
        if (!(x < static_cast<float>(_to.points.cols) - 0.5F && y < static_cast<float>(_to.points.rows) - 0.5F))
            return false;
        seen.pixel = { static_cast<int>(x + 0.5F), static_cast<int>(y + 0.5F) };
        return _to.measured(seen.pixel);
    }

    /// A direction of the other's axes in one's own.
    cv::Vec3f back(const cv::Vec3f& direction) const { return _turn.t() * direction; }

private:
    cv::Matx33f _turn;
    cv::Vec3f _shift;
    cv::Vec3f _from_camera; ///< from the other camera to the own origin, in own axes
    const View& _to;
    float _f, _cx, _cy;
};

} // namespace vexo
