#include "sim/scene.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vexo {
namespace sim {

namespace {
constexpr double infinity = std::numeric_limits<double>::infinity();

void face_the_ray(const Ray& ray, Hit& hit) noexcept
{
    if (hit.normal.dot(ray.direction) > 0) hit.normal = -hit.normal;
}
} // namespace

Rectangle::Rectangle(cv::Vec3d centre, cv::Vec3d axis_u, cv::Vec3d axis_v, double half_u, double half_v)
    : _centre(centre)
    , _u(axis_u)
    , _v(axis_v)
    , _normal(axis_u.cross(axis_v))
    , _half_u(half_u)
    , _half_v(half_v)
{
}

bool Rectangle::intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept
{
    const double t = _normal.dot(_centre - ray.origin) / _normal.dot(ray.direction);
    if (!(t > t0 && t < t1)) return false; // a parallel ray gives inf or NaN
    const cv::Vec3d point = ray.origin + t * ray.direction;
    const cv::Vec3d from_centre = point - _centre;
    if (std::abs(from_centre.dot(_u)) > _half_u || std::abs(from_centre.dot(_v)) > _half_v) return false;
    hit.t = t;
    hit.point = point;
    hit.normal = _normal;
    face_the_ray(ray, hit);
    return true;
}

Sphere::Sphere(cv::Vec3d centre, double radius)
    : _centre(centre)
    , _radius(radius)
{
}

bool Sphere::intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept
{
    // Foot of the perpendicular first: the difference of two large squares would cost digits.
    const double length2 = ray.direction.dot(ray.direction);
    const double t_foot = ray.direction.dot(_centre - ray.origin) / length2;
    const cv::Vec3d foot = ray.origin + t_foot * ray.direction - _centre;
    const double half_chord2 = (_radius * _radius - foot.dot(foot)) / length2;
    if (!(half_chord2 >= 0)) return false;
    const double half_chord = std::sqrt(half_chord2);
    double t = t_foot - half_chord;
    if (!(t > t0)) t = t_foot + half_chord;
    if (!(t > t0 && t < t1)) return false;
    hit.t = t;
    hit.point = ray.origin + t * ray.direction;
    hit.normal = (hit.point - _centre) * (1 / _radius);
    face_the_ray(ray, hit);
    return true;
}

namespace {
constexpr double grid_step = 2.5;       // mm
constexpr double near_surface = 0.5;    // mm; nearer than this by the grid, the field itself is asked
constexpr double least_step = 0.05;     // mm; misses at most chords this short: 6e-5 mm deep at radius 5 mm
constexpr double longest_stretch = 1.6; // of a step
} // namespace

Implicit::Implicit(Field field, cv::Vec3d low, cv::Vec3d high, cv::Vec3d offset)
    : _field(std::move(field))
    , _low(low)
    , _high(high)
    , _offset(offset)
{
    for (int i = 0; i < 3; ++i)
        _nodes[i] = static_cast<int>(std::ceil((high[i] - low[i]) / grid_step)) + 1;
    const auto plane = static_cast<std::size_t>(_nodes[0]) * static_cast<std::size_t>(_nodes[1]);
    const auto grid = std::make_shared<std::vector<float>>(plane * static_cast<std::size_t>(_nodes[2]));
    _grid = grid;
    const auto fill_plane = [this, plane, &grid](int z) noexcept {
        float* out = grid->data() + plane * static_cast<std::size_t>(z);
        for (int y = 0; y < _nodes[1]; ++y)
            for (int x = 0; x < _nodes[0]; ++x)
                *out++ = static_cast<float>(_field(_low + grid_step * cv::Vec3d(x, y, z)));
    };
#pragma omp parallel for schedule(static) // each thread writes its own planes of the grid
    for (int z = 0; z < _nodes[2]; ++z)
        fill_plane(z);
}

/// Part of the ray inside the box.
bool Implicit::_clip(const Ray& ray, double& t0, double& t1) const noexcept
{
    for (int i = 0; i < 3; ++i) {
        const double a = (_low[i] - ray.origin[i]) / ray.direction[i];
        const double b = (_high[i] - ray.origin[i]) / ray.direction[i];
        t0 = std::max(t0, std::min(a, b));
        t1 = std::min(t1, std::max(a, b));
    }
    return t0 < t1;
}

/// What the nearest node knows about the distance at p: its field less the way to it.
double Implicit::_lower_bound(const cv::Vec3d& p) const noexcept
{
    std::size_t at = 0;
    double way2 = 0;
    for (int i = 2; i >= 0; --i) { // z, y, x: the order of the grid
        const double steps = (p[i] - _low[i]) * (1 / grid_step);
        const int node = std::clamp(static_cast<int>(std::floor(steps + 0.5)), 0, _nodes[i] - 1);
        way2 += (steps - node) * (steps - node);
        at = at * static_cast<std::size_t>(_nodes[i]) + static_cast<std::size_t>(node);
    }
    return static_cast<double>((*_grid)[at]) - grid_step * std::sqrt(way2);
}

/// No surface lies nearer to a point than the absolute value of its `field`.
Implicit::Point Implicit::_sample(const Ray& ray, double s) const noexcept
{
    const cv::Vec3d p = ray.origin + s * ray.direction;
    const double bound = _lower_bound(p);
    return { s, bound > near_surface ? bound : _field(p) };
}

/// Root between a point outside and one inside the body: regula falsi, Illinois variant.
double Implicit::_root(const Ray& ray, Point outside, Point inside) const noexcept
{
    int last = 0;
    for (int i = 0; i < 60 && outside.field - inside.field > 1e-10; ++i) {
        const double s = (outside.s * inside.field - inside.s * outside.field) / (inside.field - outside.field);
        const double f = _field(ray.origin + s * ray.direction);
        if (std::abs(f) < 1e-10) return s;
        if (f > 0) {
            outside = { s, f };
            if (last == 1) inside.field *= 0.5;
            last = 1;
        } else {
            inside = { s, f };
            if (last == -1) outside.field *= 0.5;
            last = -1;
        }
    }
    return 0.5 * (outside.s + inside.s);
}

cv::Vec3d Implicit::_gradient(const cv::Vec3d& p) const noexcept
{
    constexpr double h = 1e-5; // mm; curvature turns the normal by about h over the radius, rounding by 1e-9
    const double here = _field(p);
    cv::Vec3d g;
    for (int i = 0; i < 3; ++i) {
        cv::Vec3d step;
        step[i] = h;
        g[i] = _field(p + step) - here;
    }
    return g;
}

/// Moves a point outside the body along the ray onto the surface; false when there is none before `end`.
/// Steps are longer than is safe; where the reach of the new point does not meet that of the last one, something may
/// stand between them, and the step is taken again at its safe length.
/// Source: Keinert et al., Enhanced sphere tracing, STAG 2014.
bool Implicit::_march(const Ray& ray, Point& point, double end) const noexcept
{
    double stretch = longest_stretch;
    for (;;) {
        const double step = std::max(stretch * point.field, least_step);
        const bool over = point.s + step >= end;
        if (over && stretch == 1) return false;
        const Point next = over ? point : _sample(ray, point.s + step);
        if (over || (stretch > 1 && step > least_step && step > point.field + std::abs(next.field))) {
            stretch = 1;
            continue;
        }
        if (next.field <= 0) {
            point.s = _root(ray, point, next);
            return true;
        }
        point = next;
        stretch = longest_stretch;
    }
}

bool Implicit::intersect(const Ray& ray, double t0, double t1, Hit& hit) const noexcept
{
    const double length = cv::norm(ray.direction);
    const Ray local { ray.origin - _offset, ray.direction * (1 / length) };
    double s = t0 * length; // mm from here on
    double end = t1 * length;
    if (!_clip(local, s, end)) return false;

    Point last = _sample(local, s);
    if (last.field > 0 && !_march(local, last, end)) return false;
    const double root = last.s; // where the ray begins, if that is inside
    hit.t = root / length;
    hit.point = ray.origin + hit.t * ray.direction;
    hit.normal = cv::normalize(_gradient(hit.point - _offset));
    face_the_ray(ray, hit);
    return true;
}

bool Scene::intersect(const Ray& ray, Hit& hit) const noexcept
{
    const Ray local { _to_scene(ray.origin), _turned.t() * ray.direction };
    double nearest = infinity;
    hit.surface = -1;
    for (std::size_t i = 0; i < _surfaces.size(); ++i) {
        if (!_surfaces[i]->intersect(local, 0, nearest, hit)) continue;
        nearest = hit.t;
        hit.surface = static_cast<int>(i);
    }
    if (hit.surface < 0) return false;
    hit.point = _turned * hit.point + _moved;
    hit.normal = _turned * hit.normal;
    hit.albedo = albedo(hit.surface, hit.point);
    return true;
}

bool Scene::blocked(const cv::Vec3d& on_surface, const cv::Vec3d& from) const noexcept
{
    constexpr double off_the_surface = 1e-6; // share of the way, about half a micrometre
    const Ray ray { _to_scene(on_surface), _turned.t() * (from - on_surface) };
    Hit hit;
    for (const auto& surface : _surfaces)
        if (surface->intersect(ray, off_the_surface, 1, hit)) return true;
    return false;
}

} // namespace sim
} // namespace vexo
