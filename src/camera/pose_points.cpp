#include "camera/pose_points.h"

#include "base/boundary.h"
#include "camera/camera_file.h"

#include <opencv2/calib3d.hpp>

#include <cfloat>
#include <cmath>

namespace vexo {
namespace {

using ObjectPoints = std::vector<cv::Point3f>;
using ImagePoints = std::vector<cv::Point2f>;

// FLT_MAX stands for a marker that was not seen.
bool is_place(float value)
{
    return std::isfinite(value) && std::abs(value) < FLT_MAX;
}

bool are_usable(const ObjectPoints& object_points, const ImagePoints& image_points)
{
    if (object_points.size() < 4 || object_points.size() != image_points.size()) return false;
    for (const cv::Point3f& p : object_points)
        if (!is_place(p.x) || !is_place(p.y) || !is_place(p.z)) return false;
    for (const cv::Point2f& p : image_points)
        if (!is_place(p.x) || !is_place(p.y)) return false;
    return true;
}

// Runs a solver on usable points; the pose reaches the caller only when it is one.
template <class Solve>
bool solve(const ObjectPoints& object_points, const ImagePoints& image_points, cv::Mat& rvec, cv::Mat& tvec,
    Solve solver) noexcept
{
    return false_if_it_throws([&] {
        if (!are_usable(object_points, image_points)) return false;
        cv::Mat_<double> rotation;
        cv::Mat_<double> translation;
        if (!solver(rotation, translation) || rotation.total() != 3 || translation.total() != 3) return false;
        if (!camera_file::all_finite({ rotation, translation })) return false;
        rvec = rotation;
        tvec = translation;
        return true;
    });
}

} // namespace

cv::Mat_<double> normalised(const cv::Mat_<double>& K)
{
    const double scale = K(2, 2);
    return scale == 0.0 ? cv::Mat_<double>(K.clone()) : cv::Mat_<double>(K / scale);
}

bool pose_by_ransac(const ObjectPoints& object_points, const ImagePoints& image_points, const cv::Mat_<double>& K,
    const cv::Mat_<double>& D, cv::Mat& rvec, cv::Mat& tvec) noexcept
{
    return solve(object_points, image_points, rvec, tvec, [&](cv::Mat_<double>& r, cv::Mat_<double>& t) {
        return cv::solvePnPRansac(object_points, image_points, normalised(K), D, r, t, false, 100, 8.0F, 0.99,
            cv::noArray(), cv::SOLVEPNP_ITERATIVE);
    });
}

bool pose_by_least_squares(const ObjectPoints& object_points, const ImagePoints& image_points,
    const cv::Mat_<double>& K, const cv::Mat_<double>& D, cv::Mat& rvec, cv::Mat& tvec) noexcept
{
    return solve(object_points, image_points, rvec, tvec, [&](cv::Mat_<double>& r, cv::Mat_<double>& t) {
        return cv::solvePnP(object_points, image_points, normalised(K), D, r, t, false, cv::SOLVEPNP_ITERATIVE);
    });
}

} // namespace vexo
