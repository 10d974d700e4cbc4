#include "host/clouds/normals.h"

#include "base/parallel.h"
#include "host/clouds/shared_noise.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace vexo {

namespace {

constexpr int reach = 3; // px to each side

/// px; of a point whose noise nobody knows, and the least that is believed, so that no weight drowns all others.
constexpr float usual_sigma = 0.05F, least_sigma = 1e-3F;

/// px^2; of each disparity.
cv::Mat_<float> variances(cv::Size size, const cv::Mat& sigma)
{
    cv::Mat_<float> variance(size, usual_sigma * usual_sigma);
    for (int y = 0; y < sigma.rows; ++y)
        for (int x = 0; x < sigma.cols; ++x) {
            const float s = std::max(sigma.at<float>(y, x), least_sigma);
            if (sigma.at<float>(y, x) > 0.0F && s < 1e3F) variance(y, x) = s * s; // false for NaN
        }
    return variance;
}

constexpr int side = 2 * reach + 1;

/// Of a neighbour in the window.
std::size_t index_of(int dx, int dy)
{
    const int index = (dy + reach) * side + dx + reach;
    return static_cast<std::size_t>(index);
}

/// The plane d = a x + b y + c through a whole window is the sum of these times d, (dx, dy) after (dx - 1, dy): the
/// best linear unbiased fit to points that share their noise (Aitken, Proc. Royal Society of Edinburgh 55 (1935) 42).
std::vector<cv::Vec3d> whole_window()
{
    constexpr int n = side * side;
    const SharedNoise shared;
    cv::Mat_<double> covariance(n, n, 0.0), terms(n, 3), weighted;
    for (int i = 0; i < n; ++i) {
        const cv::Point at(i % side - reach, i / side - reach);
        terms(i, 0) = at.x;
        terms(i, 1) = at.y;
        terms(i, 2) = 1.0;
        for (int j = 0; j < n; ++j)
            if (const int dy = std::abs(i / side - j / side); dy <= SharedNoise::rows)
                covariance(i, j) = shared(i % side - j % side, dy);
    }
    cv::solve(covariance, terms, weighted, cv::DECOMP_CHOLESKY);
    const cv::Mat fit = cv::Mat(terms.t() * weighted).inv() * weighted.t();
    std::vector<cv::Vec3d> parts;
    parts.reserve(n);
    for (int i = 0; i < n; ++i)
        parts.emplace_back(fit.at<double>(0, i), fit.at<double>(1, i), fit.at<double>(2, i));
    return parts;
}

/// Sums of weighted least squares of d = a x + b y + c.
struct PlaneSums {
    const std::vector<cv::Vec3d>& parts; ///< whole_window()
    cv::Vec3d whole {};
    float least = std::numeric_limits<float>::max(), most = 0.0F; ///< of the variances
    double w = 0, x = 0, y = 0, xx = 0, xy = 0, yy = 0, d = 0, xd = 0, yd = 0;
    int count = 0;

    void add(int dx, int dy, double off, float variance)
    {
        const double weight = 1.0 / static_cast<double>(variance);
        whole += off * parts[index_of(dx, dy)];
        least = std::min(least, variance);
        most = std::max(most, variance);
        w += weight;
        x += weight * dx;
        y += weight * dy;
        xx += weight * dx * dx;
        xy += weight * dx * dy;
        yy += weight * dy * dy;
        d += weight * off;
        xd += weight * dx * off;
        yd += weight * dy * off;
        ++count;
    }

    /// a, b and c; false where the pixels lie in a line.
    bool solve(cv::Vec3d& plane) const
    {
        constexpr double least_spread = 1e-6; // of a determinant over the product of its diagonal: 1 for a full window
        constexpr float alike = 3.6F; // that much the fractions alone, at which samples are read, make of variances
        if (count == side * side && most <= alike * least) {
            plane = whole;
            return true;
        }
        const cv::Matx33d A(xx, xy, x, xy, yy, y, x, y, w);
        if (count < 3 || !(cv::determinant(A) > least_spread * xx * yy * w)) return false;
        plane = A.solve(cv::Vec3d(xd, yd, d), cv::DECOMP_CHOLESKY);
        return true;
    }
};

/// The maps, and what is asked of one pixel.
struct Maps {
    const cv::Mat& disparity;
    const cv::Mat_<float> variance;
    const DisparityScale& scale;
    const std::vector<cv::Vec3d> parts = whole_window();

    PlaneSums sums_around(int y, int x) const
    {
        const float own = disparity.at<float>(y, x), own_variance = variance(y, x);
        PlaneSums sums { parts };
        for (int j = std::max(0, y - reach); j <= std::min(disparity.rows - 1, y + reach); ++j) {
            const float *row = disparity.ptr<float>(j), *row_variance = variance.ptr<float>(j);
            for (int i = std::max(0, x - reach); i <= std::min(disparity.cols - 1, x + reach); ++i) {
                const float off = row[i] - own;
                if (off != off) continue;
                const auto dx = static_cast<float>(i - x), dy = static_cast<float>(j - y);
                const float beyond = std::abs(off) - std::sqrt(dx * dx + dy * dy);
                if (beyond > 0.0F && beyond * beyond > 9.0F * (row_variance[i] + own_variance)) continue;
                sums.add(i - x, j - y, static_cast<double>(off), row_variance[i]);
            }
        }
        return sums;
    }

    /// The plane d = a x + b y + c has X n = -f baseline with n = -(a f, b f, c + a cx + b cy - at_infinity), c at
    /// pixel (0, 0): n points towards the camera.
    cv::Vec3d normal_at(int y, int x) const
    {
        const cv::Vec3d towards_camera((scale.cx - x) / scale.f, (scale.cy - y) / scale.f, -1.0);
        cv::Vec3d plane;
        if (!sums_around(y, x).solve(plane)) return cv::normalize(towards_camera);
        const double a = plane[0], b = plane[1];
        const double here = static_cast<double>(disparity.at<float>(y, x)) + plane[2] - scale.at_infinity;
        const cv::Vec3d normal(-a * scale.f, -b * scale.f, -(here + a * (scale.cx - x) + b * (scale.cy - y)));
        return cv::normalize(normal);
    }
};

} // namespace

cv::Mat_<cv::Vec3f> surface_normals(const cv::Mat& disparity, const cv::Mat& sigma, const DisparityScale& scale)
{
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    cv::Mat_<cv::Vec3f> normals(disparity.size(), cv::Vec3f(nan, nan, nan));
    const Maps maps { disparity, variances(disparity.size(), sigma), scale };
    in_parallel(static_cast<std::size_t>(disparity.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < disparity.cols; ++x)
            if (disparity.at<float>(y, x) == disparity.at<float>(y, x)) normals(y, x) = maps.normal_at(y, x);
    });
    return normals;
}

} // namespace vexo
