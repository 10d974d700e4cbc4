#include "host/clouds/gaps.h"

#include "base/parallel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace vexo {

namespace {

constexpr int reach = 2, least_points = 15, least_beside = 4;
constexpr float none = std::numeric_limits<float>::quiet_NaN();

bool is_there(float value)
{
    return value == value;
}

/// Points of the window around a pixel, relative to it.
struct Window {
    Window(const cv::Mat& disparity, const cv::Mat& sigma, int y, int x)
    {
        for (int dy = -reach; dy <= reach; ++dy)
            for (int dx = -reach; dx <= reach; ++dx) {
                const cv::Point at(x + dx, y + dy);
                if (!at.inside(cv::Rect({}, disparity.size())) || !is_there(disparity.at<float>(at))) continue;
                points[count] = { dx, dy, static_cast<double>(disparity.at<float>(at)) };
                left += dx < 0 ? 1 : 0;
                right += dx > 0 ? 1 : 0;
                const float s = sigma.at<float>(at);
                if (is_there(s)) sigmas[known++] = s;
                ++count;
            }
    }
    bool enough() const { return count >= least_points && left >= least_beside && right >= least_beside && known > 0; }
    double median_sigma()
    {
        const auto middle = sigmas.begin() + static_cast<std::ptrdiff_t>(known / 2);
        std::nth_element(sigmas.begin(), middle, sigmas.begin() + static_cast<std::ptrdiff_t>(known));
        return static_cast<double>(*middle);
    }

    struct Point {
        int x, y;
        double d;
    };
    std::array<Point, 25> points {};
    std::array<float, 25> sigmas {};
    std::size_t count = 0, known = 0;
    int left = 0, right = 0;
};

/// The plane of least squares through the window at its middle; NaN where points lie off it.
float plane_at_middle(Window& window)
{
    constexpr double least_px = 0.2, sigmas = 4.0;
    cv::Matx33d normal = cv::Matx33d::zeros();
    cv::Vec3d sums(0, 0, 0);
    for (std::size_t i = 0; i < window.count; ++i) {
        const cv::Vec3d at(1.0, window.points[i].x, window.points[i].y);
        normal += at * at.t();
        sums += window.points[i].d * at;
    }
    bool solved = false;
    const cv::Vec3d plane = normal.inv(cv::DECOMP_CHOLESKY, &solved) * sums;
    const double limit = least_px + sigmas * window.median_sigma();
    for (std::size_t i = 0; i < window.count && solved; ++i) {
        const auto& p = window.points[i];
        solved = std::abs(p.d - plane.dot({ 1.0, static_cast<double>(p.x), static_cast<double>(p.y) })) <= limit;
    }
    return solved ? static_cast<float>(plane[0]) : none;
}

} // namespace

cv::Mat planes_over_gaps(const cv::Mat& disparity, const cv::Mat& sigma)
{
    constexpr int widest = 2;
    cv::Mat planes(disparity.size(), CV_32F, cv::Scalar(static_cast<double>(none)));
    in_parallel(static_cast<std::size_t>(disparity.rows), [&](std::size_t row) {
        const int y = static_cast<int>(row);
        int last = disparity.cols; // the last column with a point; none yet
        for (int x = 0; x < disparity.cols; ++x) {
            if (!is_there(disparity.at<float>(y, x))) continue;
            for (int gap = last + 1; gap < x && x - last - 1 <= widest; ++gap) {
                Window window(disparity, sigma, y, gap);
                if (window.enough()) planes.at<float>(y, gap) = plane_at_middle(window);
            }
            last = x;
        }
    });
    return planes;
}

} // namespace vexo
