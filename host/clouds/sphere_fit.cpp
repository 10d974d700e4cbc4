#include "host/clouds/sphere_fit.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

constexpr std::size_t fewest_points = 50;

/// Sums of a least squares problem in four unknowns.
struct Normals {
    cv::Matx44d A = cv::Matx44d::zeros();
    cv::Vec4d b;

    void add(const cv::Vec4d& row, double value)
    {
        A += row * row.t();
        b += row * value;
    }
    bool solve(cv::Vec4d& x) const { return cv::solve(A, b, x, cv::DECOMP_SVD); }
};

/// |p|^2 = 2 c.p + (r^2 - |c|^2), linear in c and the last term; `origin` keeps the sums small.
bool algebraic(const std::vector<cv::Vec3d>& points, const cv::Vec3d& origin, SphereFit& fit)
{
    Normals normals;
    for (const cv::Vec3d& point : points) {
        const cv::Vec3d p = point - origin;
        normals.add({ 2.0 * p[0], 2.0 * p[1], 2.0 * p[2], 1.0 }, p.dot(p));
    }
    cv::Vec4d x;
    if (!normals.solve(x)) return false;
    const cv::Vec3d centre(x[0], x[1], x[2]);
    const double square = x[3] + centre.dot(centre);
    fit.centre = origin + centre;
    fit.diameter = 2.0 * std::sqrt(std::max(square, 0.0));
    return square > 0.0;
}

double distance_to(const SphereFit& fit, const cv::Vec3d& point)
{
    return cv::norm(point - fit.centre) - 0.5 * fit.diameter;
}

bool geometric(const std::vector<cv::Vec3d>& points, SphereFit& fit)
{
    for (int round = 0; round < 20; ++round) {
        Normals normals;
        for (const cv::Vec3d& point : points) {
            const cv::Vec3d ray = cv::normalize(point - fit.centre);
            normals.add({ ray[0], ray[1], ray[2], 1.0 }, distance_to(fit, point));
        }
        cv::Vec4d step;
        if (!normals.solve(step)) return false;
        fit.centre += cv::Vec3d(step[0], step[1], step[2]);
        fit.diameter += 2.0 * step[3];
        if (cv::norm(step) < 1e-9) break;
    }
    return std::isfinite(fit.diameter);
}

/// Three standard deviations of the distances, from their median, which strays do not move.
double trimming_limit(const std::vector<cv::Vec3d>& points, const SphereFit& fit)
{
    std::vector<double> distances;
    distances.reserve(points.size());
    for (const cv::Vec3d& point : points)
        distances.push_back(std::abs(distance_to(fit, point)));
    const auto middle = distances.begin() + static_cast<std::ptrdiff_t>(distances.size() / 2);
    std::nth_element(distances.begin(), middle, distances.end());
    return 3.0 * 1.4826 * *middle + 1e-9;
}

} // namespace

SphereFit fit_sphere(std::vector<cv::Vec3d> points)
{
    SphereFit fit;
    const std::vector<cv::Vec3d> all = points;
    for (int round = 0; round < 5; ++round) {
        if (points.size() < fewest_points) return {};
        if (round == 0 && !algebraic(points, points.front(), fit)) return {};
        if (!geometric(points, fit)) return {};
        const double limit = trimming_limit(all, fit);
        points.clear();
        for (const cv::Vec3d& point : all)
            if (std::abs(distance_to(fit, point)) <= limit) points.push_back(point);
    }
    double squares = 0.0;
    for (const cv::Vec3d& point : points)
        squares += distance_to(fit, point) * distance_to(fit, point);
    fit.points = points.size();
    fit.rms = std::sqrt(squares / static_cast<double>(points.size()));
    return fit;
}

} // namespace vexo
