#include "board/RotatedEllipse.h"

#include "base/angles.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

bool parallel(cv::Vec2d p, cv::Vec2d q)
{
    const double cross = p[0] * q[1] - p[1] * q[0];
    return cross * cross <= 1e-18 * p.dot(p) * q.dot(q); // also when either is the centre itself
}

/// Whether the points lie on at least three lines through the origin: with two, any ratio of axes fits.
bool has_three_directions(const cv::Mat_<double>& p)
{
    cv::Vec2d known[2];
    int count = 0;
    for (int i = 0; i < p.rows; ++i) {
        const cv::Vec2d q(p(i, 0), p(i, 1));
        if (q.dot(q) == 0) continue;
        if (std::any_of(known, known + count, [&q](cv::Vec2d k) { return parallel(k, q); })) continue;
        if (count == 2) return true;
        known[count++] = q;
    }
    return false;
}

} // namespace

double RotatedEllipse::fit(std::vector<cv::Point>& points, double tolerance)
{
    *this = RotatedEllipse();
    if (points.empty()) return 0;

    cv::Mat_<double> in_image;
    cv::Mat(static_cast<int>(points.size()), 2, CV_32S, points.data()).convertTo(in_image, CV_64F);
    cv::Mat in_principal_frame;
    if (!_principal_frame(in_image, in_principal_frame)) return 0;

    const cv::Mat_<double> p = in_principal_frame;
    if (!has_three_directions(p) || !_solve_axes(p)) return 0;
    return _share_within(p, tolerance);
}

bool RotatedEllipse::_principal_frame(const cv::Mat_<double>& points, cv::Mat& in_principal_frame)
{
    const cv::PCA pca(points, cv::noArray(), cv::PCA::DATA_AS_ROW);
    center = { pca.mean.at<double>(0), pca.mean.at<double>(1) };
    if (pca.eigenvectors.rows < 2) return false; // a single point has one direction only
    directions = cv::Matx22d(pca.eigenvectors.ptr<double>());
    angle = std::atan2(directions(0, 1), directions(0, 0));
    pca.project(points, in_principal_frame);
    return true;
}

bool RotatedEllipse::_solve_axes(const cv::Mat_<double>& p)
{
    double x4 = 0, x2y2 = 0, y4 = 0, x2 = 0, y2 = 0; // sums over the points
    for (int i = 0; i < p.rows; ++i) {
        const double xx = p(i, 0) * p(i, 0);
        const double yy = p(i, 1) * p(i, 1);
        x4 += xx * xx;
        x2y2 += xx * yy;
        y4 += yy * yy;
        x2 += xx;
        y2 += yy;
    }
    const cv::Mat normal = (cv::Mat_<double>(2, 2) << x4, x2y2, x2y2, y4);
    const cv::Mat right = (cv::Mat_<double>(2, 1) << x2, y2);
    const cv::Mat terms = normal.inv() * right; // zeros when the points determine no axes
    const double semi_a = 1.0 / std::sqrt(terms.at<double>(0));
    const double semi_b = 1.0 / std::sqrt(terms.at<double>(1));
    if (!std::isfinite(semi_a) || !std::isfinite(semi_b)) return false;
    a = semi_a;
    b = semi_b;
    full_axes[0] = 2 * a;
    full_axes[1] = 2 * b;
    return true;
}

double RotatedEllipse::_share_within(const cv::Mat_<double>& p, double tolerance) const
{
    int within = 0;
    for (int i = 0; i < p.rows; ++i) {
        const double xx = p(i, 0) * p(i, 0);
        const double yy = p(i, 1) * p(i, 1);
        // The ray's radius over the point's distance; the centre itself is a smallest semi-axis away.
        const double reach = a * b / std::sqrt(b * b * xx + a * a * yy);
        const double distance = xx + yy > 0 ? std::sqrt(xx + yy) * std::abs(1 - reach) : std::min(a, b);
        if (distance <= tolerance) ++within;
    }
    return static_cast<double>(within) / p.rows;
}

double RotatedEllipse::getRadius(cv::Vec2d direction) const
{
    const cv::Vec2d d = directions * direction;
    if (d[0] == 0) return b;
    const double t = d[1] / d[0];
    const double x = a * b / std::sqrt(a * a * t * t + b * b);
    const double y = t * x;
    return std::sqrt(x * x + y * y);
}

double RotatedEllipse::major_axis() const
{
    return std::max(full_axes[0], full_axes[1]);
}

double RotatedEllipse::minor_axis() const
{
    return std::min(full_axes[0], full_axes[1]);
}

cv::RotatedRect RotatedEllipse::rectangle(double scale) const
{
    const cv::Size2f size(static_cast<float>(full_axes[0] * scale), static_cast<float>(full_axes[1] * scale));
    return { cv::Point2f(center), size, static_cast<float>(angle * 180 / pi) };
}

} // namespace vexo
