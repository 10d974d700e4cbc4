#include "host/clouds/normals.h"

#include "base/parallel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr int reach = 3; // px to each side

/// px; of a point whose noise nobody knows.
constexpr float usual_sigma = 0.05F;

/// Sums of weighted least squares of d = a x + b y + c.
struct PlaneSums {
    double w = 0, x = 0, y = 0, xx = 0, xy = 0, yy = 0, d = 0, xd = 0, yd = 0;
    int count = 0;

    void add(int dx, int dy, double off, double weight)
    {
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
        constexpr double least = 1e-6; // of a determinant over the product of its diagonal: 1 for a full window
        const cv::Matx33d A(xx, xy, x, xy, yy, y, x, y, w);
        if (count < 3 || !(cv::determinant(A) > least * xx * yy * w)) return false;
        plane = A.solve(cv::Vec3d(xd, yd, d), cv::DECOMP_CHOLESKY);
        return true;
    }
};

/// The maps, and what is asked of one pixel.
struct Maps {
    const cv::Mat& disparity;
    const cv::Mat& sigma;
    const DisparityScale& scale;

    float sigma_at(int y, int x) const
    {
        if (sigma.empty()) return usual_sigma;
        const float s = sigma.at<float>(y, x);
        return s > 0.0F ? s : usual_sigma;
    }

    PlaneSums sums_around(int y, int x) const
    {
        const float own = disparity.at<float>(y, x), own_sigma = sigma_at(y, x);
        PlaneSums sums;
        for (int j = std::max(0, y - reach); j <= std::min(disparity.rows - 1, y + reach); ++j)
            for (int i = std::max(0, x - reach); i <= std::min(disparity.cols - 1, x + reach); ++i) {
                const float off = disparity.at<float>(j, i) - own;
                if (off != off) continue;
                const float s = sigma_at(j, i);
                const auto distance = static_cast<float>(std::hypot(j - y, i - x));
                if (std::abs(off) > 3.0F * std::sqrt(s * s + own_sigma * own_sigma) + distance) continue;
                sums.add(i - x, j - y, static_cast<double>(off), 1.0 / (static_cast<double>(s) * s));
            }
        return sums;
    }

    /// Of the plane a x + b y + c in disparities about this pixel: X n = -f baseline with
    /// n = -(a f, b f, c + a cx + b cy - at_infinity), c the plane's disparity at pixel (0, 0).
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
    const Maps maps { disparity, sigma, scale };
    in_parallel(static_cast<std::size_t>(disparity.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        for (int x = 0; x < disparity.cols; ++x)
            if (disparity.at<float>(y, x) == disparity.at<float>(y, x)) normals(y, x) = maps.normal_at(y, x);
    });
    return normals;
}

} // namespace vexo
