#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

namespace vexo {
namespace sim {

/// Half line (or segment) origin + t * direction, in the rig frame, mm. `direction` need not be of unit length.
struct Ray {
    cv::Vec3d origin;
    cv::Vec3d direction;
};

/// Where a ray meets a surface.
struct Hit {
    double t = 0;      ///< ray parameter
    cv::Vec3d point;   ///< rig frame, mm
    cv::Vec3d normal;  ///< unit length, on the side the ray comes from
    double albedo = 0; ///< share of light that is thrown back; 1: white
    int surface = -1;  ///< number of the surface in its scene
};

/// Share of light thrown back at a point of the rig frame; above 1 is brighter than white. Called from several threads;
/// must not throw.
using Albedo = std::function<double(const cv::Vec3d&)>;

/// A surface that rays can meet. Surfaces are matt (Lambert) and seen from both sides.
class Surface {
public:
    virtual ~Surface() = default;

    /// First meeting with t0 < t < t1: fills t, point and normal. May be called from several threads.
    virtual bool intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept = 0;

    Albedo albedo; ///< empty: 1 everywhere
};

/// Flat rectangle: centre, two axes at right angles of unit length, and half the size along each (may be infinite).
class Rectangle : public Surface {
public:
    Rectangle(cv::Vec3d centre, cv::Vec3d axis_u, cv::Vec3d axis_v, double half_u, double half_v);
    bool intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept override;

private:
    cv::Vec3d _centre, _u, _v, _normal;
    double _half_u, _half_v;
};

class Sphere : public Surface {
public:
    Sphere(cv::Vec3d centre, double radius);
    bool intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept override;

private:
    cv::Vec3d _centre;
    double _radius;
};

/// Free-form surface: the points of a box where a field is zero. The field is positive outside the body, and a
/// lower bound of the distance to it: no step of |field| can pass through the surface. (A field with gradient
/// never above 1 is one.) The march reads a coarse grid of the field while it is far from the surface.
/// Source: Hart, Sphere tracing, The Visual Computer 12 (1996) 527.
class Implicit : public Surface {
public:
    using Field = std::function<double(const cv::Vec3d&)>;

    /// @param field  mm, of a point of the body's frame; called from several threads, must not throw
    /// @param low, high  corners of the box, body frame
    /// @param offset  rig position of the body frame's origin; the axes are parallel
    Implicit(Field field, cv::Vec3d low, cv::Vec3d high, cv::Vec3d offset);

    /// The same body elsewhere. Both share the grid, whose making takes longer than rendering a small picture.
    Implicit at(cv::Vec3d offset) const
    {
        Implicit other = *this;
        other._offset = offset;
        return other;
    }

    bool intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept override;

private:
    struct Point {
        double s;     ///< mm along the ray
        double field; ///< of the point, or a positive lower bound of it
    };
    bool _clip(const Ray& ray, double& t0, double& t1) const noexcept;
    double _lower_bound(const cv::Vec3d& p) const noexcept;
    Point _sample(const Ray& ray, double s) const noexcept;
    bool _march(const Ray& ray, Point& point, double end) const noexcept;
    double _root(const Ray& ray, Point outside, Point inside) const noexcept;
    cv::Vec3d _gradient(const cv::Vec3d& p) const noexcept;

    Field _field;
    cv::Vec3d _low, _high, _offset;
    cv::Vec3i _nodes;
    std::shared_ptr<const std::vector<float>> _grid; ///< field at the nodes, x fastest
};

/// The surfaces in front of the rig.
class Scene {
public:
    void add(std::unique_ptr<Surface> surface) { _surfaces.push_back(std::move(surface)); }

    /// Gives all surfaces so far one albedo.
    void paint(const Albedo& albedo)
    {
        for (auto& surface : _surfaces)
            surface->albedo = albedo;
    }

    /// Moves everything, mm; albedos move with the surfaces.
    void move(const cv::Vec3d& by) { _moved += by; }

    /// Turns everything about an axis through `about`, as a turntable does; albedos turn with the surfaces.
    void turn(const cv::Matx33d& rotation, const cv::Vec3d& about)
    {
        _turned = rotation * _turned;
        _moved = rotation * (_moved - about) + about;
    }

    /// Albedo of a surface of intersect() at a point near it.
    double albedo(int surface, const cv::Vec3d& point) const noexcept
    {
        const Albedo& of_surface = _surfaces[static_cast<std::size_t>(surface)]->albedo;
        return of_surface ? of_surface(_to_scene(point)) : 1.0;
    }

    /// Nearest surface along a ray.
    bool intersect(const Ray& ray, Hit& hit) const noexcept;

    /// Whether something stands between a point of a surface and another point.
    bool blocked(const cv::Vec3d& on_surface, const cv::Vec3d& from) const noexcept;

private:
    cv::Vec3d _to_scene(const cv::Vec3d& point) const noexcept { return _turned.t() * (point - _moved); }

    std::vector<std::unique_ptr<Surface>> _surfaces;
    cv::Matx33d _turned = cv::Matx33d::eye(); ///< x_rig = _turned x_scene + _moved
    cv::Vec3d _moved;
};

} // namespace sim
} // namespace vexo
