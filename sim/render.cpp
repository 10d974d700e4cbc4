#include "sim/render.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "sim/noise.h"

namespace vexo {
namespace sim {

struct View::Point {
    cv::Vec3d position;
    cv::Vec3d normal;
    double depth = 0;
    float albedo = 0;
    int surface = -1; ///< -1: the ray meets nothing
    bool lit = false;
    Sample sample;
};

View::View(const Scene& scene, const Rig& rig, int camera)
    : _rig(&rig)
    , _camera(camera)
{
    const cv::Size size = rig.cameras[static_cast<std::size_t>(camera)].size;
    _depth.create(size);
    _lit.create(size);
    _shared.create(size);
    const auto pixels = static_cast<std::size_t>(size.area());
    _samples.resize(pixels);
    std::vector<Point> points(pixels);
#pragma omp parallel for schedule(dynamic, 8) // each thread writes its own rows; empty rows are quick, hence dynamic
    for (int y = 0; y < size.height; ++y)
        _trace_row(scene, y, &points[_index(y, 0)]);

    _find_edges(points);
    const auto edges = static_cast<int>(_edges.size());
#pragma omp parallel for schedule(dynamic, 64) // each thread writes the samples of its own edge pixels
    for (int e = 0; e < edges; ++e)
        _trace_edge(scene, static_cast<std::size_t>(e));
}

bool View::_is_lit(const Scene& scene, const cv::Vec3d& point, const cv::Vec3d& normal) const noexcept
{
    const cv::Vec3d projector = _rig->projector.centre();
    return normal.dot(projector - point) > 0 && _rig->projector.sees(point) && !scene.blocked(point, projector);
}

bool View::_is_shared(const Scene& scene, const cv::Vec3d& point, const cv::Vec3d& normal) const noexcept
{
    const Camera& other = _rig->cameras[static_cast<std::size_t>(1 - _camera)];
    const cv::Vec3d centre = other.centre();
    return normal.dot(centre - point) > 0 && other.sees(point) && !scene.blocked(point, centre);
}

namespace {
/// How far a pixel's ray moves over the tangent plane at the hit, per pixel along x and along y, mm.
std::array<cv::Vec3d, 2> patch_of_pixel(const PixelRay& ray, const Hit& hit) noexcept
{
    std::array<cv::Vec3d, 2> patch;
    for (std::size_t i = 0; i < 2; ++i) {
        const cv::Vec3d& turn = ray.per_pixel[i];
        patch[i] = hit.t * (turn - ray.direction * (hit.normal.dot(turn) / hit.normal.dot(ray.direction)));
    }
    return patch;
}

/// Projector columns that a pixel covers. Two boxes, one for each direction of the pixel, taken as one of the same
/// variance.
double columns_of_pixel(const Camera& projector, const PixelRay& ray, const Hit& hit) noexcept
{
    const cv::Vec3d p = projector.to_camera(hit.point);
    double sum = 0;
    for (const cv::Vec3d& side : patch_of_pixel(ray, hit)) {
        const cv::Vec3d moved = projector.R * side;
        const double columns = projector.K(0, 0) * (moved[0] - p[0] / p[2] * moved[2]) / p[2];
        sum += columns * columns;
    }
    return std::sqrt(sum);
}

/// Grey levels of a matt surface under a bright sky in front of it, a little brighter overhead. No shadows.
double shade_flat(const Rig& rig, const cv::Vec3d& normal) noexcept
{
    const cv::Vec3d brightest = cv::normalize(cv::Vec3d(0, -0.6, -1));
    return rig.lit_white * (0.6 + 0.4 * std::max(0.0, normal.dot(brightest)));
}

/// Grey levels of a matt surface under the projector: Lambert's cosine and the distance squared.
double shade(const Rig& rig, const Hit& hit) noexcept
{
    const cv::Vec3d way = rig.projector.centre() - hit.point;
    const double length = cv::norm(way);
    const double near = cv::norm(rig.projector.centre() - cv::Vec3d(0, 0, rig.options.distance_mm)) / length;
    return rig.lit_white * hit.albedo * near * near * std::max(0.0, hit.normal.dot(way) / length);
}
} // namespace

/// Albedo of a painted surface over a patch of a pixel: the mean of 2 x 2 points, whose paint is coarser than that.
double View::_mean_albedo(const Scene& scene, const PixelRay& ray, const Hit& hit, double pixel_part) const noexcept
{
    const std::array<cv::Vec3d, 2> patch = patch_of_pixel(ray, hit);
    double sum = 0;
    for (const double x : { -0.25, 0.25 })
        for (const double y : { -0.25, 0.25 })
            sum += scene.albedo(hit.surface, hit.point + pixel_part * (x * patch[0] + y * patch[1]));
    return sum / 4;
}

/// @param pixel_part  side of the traced patch, pixels
View::Point View::_trace(const Scene& scene, const cv::Vec2d& pixel, double pixel_part) const noexcept
{
    const Camera& camera = _rig->cameras[static_cast<std::size_t>(_camera)];
    const PixelRay ray = camera.ray(pixel);
    Point point;
    Hit hit;
    if (!scene.intersect({ camera.centre(), ray.direction }, hit)) return point;
    point.position = hit.point;
    point.normal = hit.normal;
    point.depth = hit.t; // the direction is 1 along the camera's z axis
    point.surface = hit.surface;
    if (_rig->flat_light) {
        hit.albedo = _mean_albedo(scene, ray, hit, pixel_part);
        point.sample.ambient = static_cast<float>(
            hit.albedo * (shade_flat(*_rig, hit.normal) + _rig->options.exposure * _rig->options.ambient));
        point.lit = true;
        return point; // painted all over: pixels next to one another differ, yet one sample is enough
    }
    point.albedo = static_cast<float>(hit.albedo);
    point.lit = _is_lit(scene, hit.point, hit.normal);
    point.sample.ambient = static_cast<float>(_rig->options.exposure * _rig->options.ambient * hit.albedo);
    if (!point.lit) return point;
    constexpr double least_width = 1e-3; // px; an interval may not be empty
    point.sample.column = _rig->projector.project(hit.point)[0] + 0.5;
    point.sample.width
        = static_cast<float>(std::max(least_width, pixel_part * columns_of_pixel(_rig->projector, ray, hit)));
    point.sample.lit = static_cast<float>(shade(*_rig, hit));
    return point;
}

void View::_trace_row(const Scene& scene, int y, Point* points) noexcept
{
    for (int x = 0; x < _depth.cols; ++x) {
        points[x] = _trace(scene, cv::Vec2d(x, y), 1);
        const Point& p = points[x];
        const bool there = p.surface >= 0;
        _samples[_index(y, x)] = p.sample;
        _depth(y, x) = there ? static_cast<float>(p.depth) : std::numeric_limits<float>::quiet_NaN();
        _lit(y, x) = p.lit ? 255 : 0;
        _shared(y, x) = there && _is_shared(scene, p.position, p.normal) ? 255 : 0;
    }
}

/// Whether two neighbouring pixels see things that one sample each would not show.
bool View::_differ(const Point& a, const Point& b) const noexcept
{
    if (a.surface != b.surface || a.lit != b.lit) return true;
    if (a.surface < 0) return false;
    if (std::abs(a.albedo - b.albedo) > 0.02F) return true;
    const double pixel = a.depth / _rig->cameras[static_cast<std::size_t>(_camera)].K(0, 0); // mm
    return std::abs(a.normal.dot(b.position - a.position)) > 0.5 * pixel;
}

void View::_find_edges(const std::vector<Point>& points)
{
    std::vector<uchar> edge(points.size(), 0);
    const auto compare = [&](std::size_t a, std::size_t b) {
        if (_differ(points[a], points[b])) edge[a] = edge[b] = 1;
    };
    for (int y = 0; y < _depth.rows; ++y)
        for (int x = 0; x < _depth.cols; ++x) {
            if (x > 0) compare(_index(y, x), _index(y, x - 1));
            if (y > 0) compare(_index(y, x), _index(y - 1, x));
        }
    _edge_of_pixel.assign(points.size(), -1);
    for (std::size_t i = 0; i < edge.size(); ++i) {
        if (edge[i] == 0) continue;
        _edge_of_pixel[i] = static_cast<int>(_edges.size());
        _edges.push_back(i);
    }
    _edge_samples.resize(_edges.size() * fine * fine);
}

void View::_trace_edge(const Scene& scene, std::size_t edge) noexcept
{
    const auto columns = static_cast<std::size_t>(_depth.cols);
    const std::size_t column = _edges[edge] % columns, line = _edges[edge] / columns;
    const auto x = static_cast<double>(column), y = static_cast<double>(line);
    Sample* out = &_edge_samples[edge * fine * fine];
    for (int j = 0; j < fine; ++j)
        for (int i = 0; i < fine; ++i) {
            // Each row of samples is shifted a little, each column too: 16 steps even at upright and level edges.
            const double right = (i + (j + 0.5) / fine) / fine, down = (j + (i + 0.5) / fine) / fine;
            const cv::Vec2d pixel(x + right - 0.5, y + down - 0.5);
            *out++ = _trace(scene, pixel, 1.0 / fine).sample;
        }
}

/// Grey levels of light in a pixel.
double View::_light(const ProjectedRow& row, std::size_t pixel) const noexcept
{
    const auto light = [&row](const Sample& s) {
        return static_cast<double>(s.ambient) + static_cast<double>(s.lit) * row.mean(s.column, s.width) / 255;
    };
    const int edge = _edge_of_pixel[pixel];
    if (edge < 0) return light(_samples[pixel]);
    double sum = 0;
    const Sample* s = &_edge_samples[static_cast<std::size_t>(edge) * fine * fine];
    for (int i = 0; i < fine * fine; ++i)
        sum += light(s[i]);
    return sum / (fine * fine);
}

void View::_picture_row(const ProjectedRow& row, std::uint64_t key, int y, uchar* out) const noexcept
{
    for (int x = 0; x < _depth.cols; ++x) {
        const std::size_t pixel = _index(y, x);
        out[x] = _rig->sensor.grey(_light(row, pixel), key, pixel);
    }
}

cv::Mat_<uchar> View::picture(const ProjectedRow& row, int frame) const
{
    cv::Mat_<uchar> image(_depth.size());
    const std::uint64_t key = noise_key(_rig->options.seed, _camera, frame);
#pragma omp parallel for schedule(static) // each thread writes its own rows of `image`
    for (int y = 0; y < image.rows; ++y)
        _picture_row(row, key, y, image[y]);
    return image;
}

Truth make_truth(const View& camera0, int lit_columns)
{
    cv::Mat_<uchar> visible;
    cv::bitwise_and(camera0.lit(), camera0.shared(), visible);
    for (int y = 0; y < visible.rows; ++y)
        for (int x = 0; x < visible.cols; ++x)
            if (camera0.sample(y, x).column > lit_columns) visible(y, x) = 0;
    return { camera0.depth().clone(), visible };
}

std::vector<ProjectedRow> project(const Pattern& pattern, const RigOptions& options)
{
    std::vector<ProjectedRow> rows;
    rows.reserve(pattern.frames.size());
    for (const auto& grey : pattern.frames)
        rows.emplace_back(grey, options.gamma, options.defocus);
    return rows;
}

} // namespace sim
} // namespace vexo
