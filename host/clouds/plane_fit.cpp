#include "host/clouds/plane_fit.h"

namespace vexo {

namespace {

/// 1/Z = m . q on a plane, with q = (X/Z, Y/Z, 1); m = normal / offset.
cv::Vec3d sight(const Sighted& s)
{
    return s.point / s.point[2];
}

/// Depth of the point over that of the plane on its line of sight, less 1.
double relative_error(const Sighted& s, const cv::Vec3d& m)
{
    return m.dot(s.point) - 1.0;
}

/// The same in sigmas of the depth.
double in_sigmas(const Sighted& s, const cv::Vec3d& m)
{
    return relative_error(s, m) * s.point[2] / s.sigma;
}

/// Several hundred points spread over all of them.
std::vector<Sighted> thinned(const std::vector<Sighted>& points)
{
    constexpr std::size_t enough = 2000;
    const std::size_t step = std::max<std::size_t>(1, points.size() / enough);
    std::vector<Sighted> some;
    for (std::size_t i = 0; i < points.size(); i += step)
        some.push_back(points[i]);
    return some;
}

/// The plane through three points on which most others lie, within a share of their depth.
cv::Vec3d most_common_plane(const std::vector<Sighted>& points, bool sigma_known)
{
    constexpr int trials = 600; // a plane that a fifth of the points lie on is met with 99 %
    constexpr double form = 0.002;
    cv::RNG random(1);
    cv::Vec3d best, m;
    double least = 1e300;
    for (int trial = 0; trial < trials; ++trial) {
        cv::Matx33d A;
        for (int k = 0; k < 3; ++k) {
            const cv::Vec3d& p = points[random(static_cast<unsigned>(points.size()))].point;
            for (int j = 0; j < 3; ++j)
                A(k, j) = p[j];
        }
        if (!cv::solve(A, cv::Vec3d(1, 1, 1), m, cv::DECOMP_LU)) continue;
        double cost = 0.0;
        for (const Sighted& s : points) {
            const double limit = form + (sigma_known ? outlier_sigmas * s.sigma / s.point[2] : 0.0);
            cost += std::min(1.0, std::pow(relative_error(s, m) / limit, 2.0));
        }
        if (!(cost < least)) continue;
        least = cost;
        best = m;
    }
    return best;
}

/// Of the points that `m` is within that many sigmas of.
std::vector<std::size_t> within(const std::vector<Sighted>& points, const cv::Vec3d& m, double limit)
{
    std::vector<std::size_t> inliers;
    for (std::size_t i = 0; i < points.size(); ++i)
        if (std::abs(in_sigmas(points[i], m)) <= limit) inliers.push_back(i);
    return inliers;
}

bool least_squares(const std::vector<Sighted>& points, const std::vector<std::size_t>& inliers, cv::Vec3d& m)
{
    cv::Matx33d A = cv::Matx33d::zeros();
    cv::Vec3d b;
    for (const std::size_t i : inliers) {
        const Sighted& s = points[i];
        const cv::Vec3d q = sight(s);
        const double weight = std::pow(s.point[2] * s.point[2] / s.sigma, 2.0);
        A += weight * q * q.t();
        b += weight / s.point[2] * q;
    }
    return cv::solve(A, b, m, cv::DECOMP_SVD);
}

/// The residuals of those near the start say how much the points scatter.
double limit_of(const std::vector<Sighted>& points, const cv::Vec3d& m, bool sigma_known)
{
    constexpr double near = 0.004;
    std::vector<double> residuals;
    for (const Sighted& s : points)
        if (std::abs(relative_error(s, m)) <= near) residuals.push_back(std::abs(in_sigmas(s, m)));
    return residuals.empty() ? 0.0 : outlier_limit(std::move(residuals), sigma_known);
}

PlaneFit described(const std::vector<Sighted>& points, const cv::Vec3d& m, std::vector<std::size_t> inliers)
{
    PlaneFit fit;
    fit.normal = -m / cv::norm(m);
    fit.offset = -1.0 / cv::norm(m);
    double squares = 0.0, depth_squares = 0.0, variances = 0.0;
    for (const std::size_t i : inliers) {
        fit.residuals.push_back(fit.off(points[i]));
        squares += std::pow(fit.residuals.back(), 2.0);
        depth_squares += std::pow(fit.residuals.back() * points[i].sigma / sigma_along(points[i], fit.normal), 2.0);
        variances += std::pow(sigma_along(points[i], fit.normal), 2.0);
    }
    const auto n = static_cast<double>(inliers.size());
    fit.rms = std::sqrt(squares / n);
    fit.depth_rms = std::sqrt(depth_squares / n);
    fit.noise = std::sqrt(variances / n);
    fit.inliers = std::move(inliers);
    return fit;
}

} // namespace

std::optional<PlaneFit> fit_plane(const std::vector<Sighted>& points, bool sigma_known)
{
    constexpr int rounds = 20;
    if (points.size() < fewest_plane_points) return std::nullopt;
    cv::Vec3d m = most_common_plane(thinned(points), sigma_known);
    std::vector<std::size_t> inliers;
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::size_t> now = within(points, m, limit_of(points, m, sigma_known));
        if (now.size() < std::max(fewest_plane_points, points.size() / 5)) return std::nullopt;
        if (now == inliers) break;
        inliers = std::move(now);
        if (!least_squares(points, inliers, m)) return std::nullopt;
    }
    return described(points, m, std::move(inliers));
}

} // namespace vexo
