#include "camera/camera_distort.h"

#include "camera/camera_file.h"
#include "camera/pose_points.h"

#include <opencv2/calib3d.hpp>

#include <stdexcept>
#include <utility>

namespace vexo {
namespace {

[[noreturn]] void refuse_inversion()
{
    throw std::logic_error("Invert projection is not available in DistortCamera.");
}

bool is_distortion(const cv::Mat_<double>& D)
{
    if (D.empty()) return true;
    const std::size_t n = D.total();
    return (D.rows == 1 || D.cols == 1) && (n == 4 || n == 5 || n == 8 || n == 12 || n == 14);
}

} // namespace

DistortCamera::DistortCamera(const DistortCamera& other)
    : PinHoleCamera(other)
    , D(other.D.clone())
{
}

DistortCamera& DistortCamera::operator=(const DistortCamera& other)
{
    DistortCamera copy(other);
    _swap(copy);
    cv::swap(D, copy.D);
    return *this;
}

bool DistortCamera::save(cv::FileStorage* fs)
{
    if (!name.empty() && !camera_file::is_key_name(name)) return false;
    const bool nameless = name.empty();
    const bool saved = camera_file::save_yaml(fs, name, [this](cv::FileStorage& storage) {
        if (!PinHoleCamera::save(&storage)) return false;
        cv::write(storage, name + "_D", D);
        return true;
    });
    if (!saved && nameless) name.clear(); // the next save goes to the same file
    return saved;
}

bool DistortCamera::load(cv::FileStorage* fs)
{
    return camera_file::load_yaml(fs, name, [this](cv::FileStorage& storage) {
        PinHoleCamera fresh(*this);
        cv::Mat_<double> fresh_D;
        if (!fresh.load(&storage)) return false;
        const cv::FileNode node = camera_file::find(storage, fresh.name + "_D");
        if (!node.empty() && !(camera_file::read_matrix(node, fresh_D) && is_distortion(fresh_D))) return false;
        _swap(fresh);
        cv::swap(D, fresh_D);
        return true;
    });
}

bool DistortCamera::solvePnPRansac(
    cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points, std::vector<cv::Point3f>& object_points)
{
    return pose_by_ransac(object_points, image_points, K, D, rvec, tvec);
}

bool DistortCamera::solvePnP(
    cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points, std::vector<cv::Point3f>& object_points)
{
    return pose_by_least_squares(object_points, image_points, K, D, rvec, tvec);
}

cv::Point2d DistortCamera::project_forw(const cv::Point3d& X) const
{
    cv::Mat_<double> rvec;
    cv::Rodrigues(R, rvec);
    const std::vector<cv::Point3f> points { cv::Point3f(X) };
    std::vector<cv::Point2f> image_points;
    cv::projectPoints(points, rvec, T, normalised_K(), D, image_points);
    return { image_points[0] };
}

cv::Point3d DistortCamera::project_back(const cv::Point2d&) const
{
    refuse_inversion();
}

cv::Vec3d DistortCamera::get_sight_vector(const cv::Point2d&) const
{
    refuse_inversion();
}

} // namespace vexo
