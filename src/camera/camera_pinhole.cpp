#include "camera/camera_pinhole.h"

#include "base/boundary.h"
#include "camera/camera_file.h"
#include "camera/pose_points.h"

#include <opencv2/calib3d.hpp>

#include <array>
#include <cmath>
#include <istream>
#include <ostream>
#include <utility>

namespace vexo {

cv::Point2d project3d_2d(const cv::Mat_<double>& M, const cv::Point3d& X)
{
    double y[3];
    for (int r = 0; r < 3; ++r)
        y[r] = M(r, 0) * X.x + M(r, 1) * X.y + M(r, 2) * X.z + M(r, 3);
    return { y[0] / y[2], y[1] / y[2] };
}

PinHoleCamera::PinHoleCamera(cv::Size image_size, std::string camera_name)
    : size(image_size)
    , name(std::move(camera_name))
    , K(cv::Mat_<double>::eye(3, 3))
    , R(cv::Mat_<double>::eye(3, 3))
    , T(cv::Mat_<double>::zeros(3, 1))
    , P(cv::Mat_<double>::eye(4, 4))
    , P_inv(cv::Mat_<double>::eye(4, 4))
    , RT(cv::Mat_<double>::eye(4, 4))
    , RT_inv(cv::Mat_<double>::eye(4, 4))
{
}

PinHoleCamera::PinHoleCamera(const PinHoleCamera& other)
    : size(other.size)
    , name(other.name)
    , K(other.K.clone())
    , R(other.R.clone())
    , T(other.T.clone())
    , P(other.P.clone())
    , P_inv(other.P_inv.clone())
    , RT(other.RT.clone())
    , RT_inv(other.RT_inv.clone())
{
}

PinHoleCamera& PinHoleCamera::operator=(const PinHoleCamera& other)
{
    PinHoleCamera copy(other);
    _swap(copy);
    return *this;
}

void PinHoleCamera::_swap(PinHoleCamera& other) noexcept
{
    std::swap(size, other.size);
    name.swap(other.name);
    cv::swap(K, other.K);
    cv::swap(R, other.R);
    cv::swap(T, other.T);
    cv::swap(P, other.P);
    cv::swap(P_inv, other.P_inv);
    cv::swap(RT, other.RT);
    cv::swap(RT_inv, other.RT_inv);
}

void PinHoleCamera::setRT()
{
    R.copyTo(RT(cv::Rect(0, 0, 3, 3)));
    T.copyTo(RT(cv::Rect(3, 0, 1, 3)));
    const cv::Mat_<double> world_from_camera(R.t());
    const cv::Mat_<double> centre(-world_from_camera * T);
    world_from_camera.copyTo(RT_inv(cv::Rect(0, 0, 3, 3)));
    centre.copyTo(RT_inv(cv::Rect(3, 0, 1, 3)));
}

void PinHoleCamera::compose()
{
    R.copyTo(P(cv::Rect(0, 0, 3, 3)));
    T.copyTo(P(cv::Rect(3, 0, 1, 3)));
    cv::Mat_<double> K4(cv::Mat_<double>::eye(4, 4));
    K.copyTo(K4(cv::Rect(0, 0, 3, 3)));
    const cv::Mat_<double> product(K4 * P);
    product.copyTo(P);
    P_inv = P.inv();
    setRT();
}

void PinHoleCamera::decompose()
{
    cv::RQDecomp3x3(P(cv::Rect(0, 0, 3, 3)), K, R);
    T = K.inv() * P(cv::Rect(3, 0, 1, 3));
}

void PinHoleCamera::setPPM(const cv::Mat_<double>& m)
{
    CV_Assert(m.rows == 3 && m.cols == 4);
    m.copyTo(P(cv::Rect(0, 0, 4, 3)));
    decompose();
    P_inv = P.inv();
    setRT();
}

cv::Mat_<double> PinHoleCamera::normalised_K() const
{
    return normalised(K);
}

cv::Point2d PinHoleCamera::project_forw(const cv::Point3d& X) const
{
    return project3d_2d(P, X);
}

cv::Point3d PinHoleCamera::project_back(const cv::Point2d& p) const
{
    double d[3];
    for (int r = 0; r < 3; ++r)
        d[r] = P_inv(r, 0) * p.x + P_inv(r, 1) * p.y + P_inv(r, 2);
    return { d[0], d[1], d[2] };
}

cv::Vec3d PinHoleCamera::get_sight_vector(const cv::Point2d& p) const
{
    const cv::Point3d d = project_back(p);
    const double n = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    if (n == 0.0) return { 0.0, 0.0, 0.0 };
    return { d.x / n, d.y / n, d.z / n };
}

cv::Mat PinHoleCamera::get_center() const
{
    return RT_inv(cv::Rect(3, 0, 1, 3));
}

std::string PinHoleCamera::get_camera_name(const cv::FileStorage* fs) const
{
    if (fs == nullptr || !fs->isOpened()) return {};
    const cv::FileNode root = fs->root();
    if (!root.isMap() || root.size() == 0) return {};
    const std::string key = (*root.begin()).name();
    const std::size_t underscore = key.find('_');
    return underscore == std::string::npos ? std::string() : key.substr(0, underscore);
}

bool PinHoleCamera::save(cv::FileStorage* fs)
{
    if (name.empty()) name = "cam";
    if (!camera_file::is_key_name(name)) return false;
    return camera_file::save_yaml(fs, name, [this](cv::FileStorage& storage) { return _write(storage); });
}

bool PinHoleCamera::_write(cv::FileStorage& fs)
{
    fs.startWriteStruct(name + "_size", cv::FileNode::SEQ | cv::FileNode::FLOW);
    cv::write(fs, cv::String(), size.width);
    cv::write(fs, cv::String(), size.height);
    fs.endWriteStruct();
    cv::write(fs, name + "_K", K);
    cv::write(fs, name + "_R", R);
    cv::write(fs, name + "_T", T);
    cv::write(fs, name + "_P", cv::Mat(P(cv::Rect(0, 0, 4, 3))));
    return true;
}

bool PinHoleCamera::load(cv::FileStorage* fs)
{
    return camera_file::load_yaml(fs, name, [this](const cv::FileStorage& storage) {
        PinHoleCamera fresh(*this);
        if (!fresh._read(storage)) return false;
        _swap(fresh);
        return true;
    });
}

// Leaves a half-read camera behind on failure: only for fresh copies.
bool PinHoleCamera::_read(const cv::FileStorage& fs)
{
    using namespace camera_file;
    if (name.empty()) name = get_camera_name(&fs);
    const cv::FileNode size_node = find(fs, name + "_size");
    if (!size_node.empty() && !read_size(size_node, size)) return false;

    const cv::FileNode K_node = find(fs, name + "_K");
    const cv::FileNode R_node = find(fs, name + "_R");
    const cv::FileNode T_node = find(fs, name + "_T");
    const cv::FileNode P_node = find(fs, name + "_P");
    if (!K_node.empty() && !R_node.empty() && !T_node.empty()) {
        if (!read_matrix(K_node, 3, 3, K) || !read_matrix(R_node, 3, 3, R) || !read_vector3(T_node, T)) return false;
        if (K(0, 0) == 0.0 || K(1, 1) == 0.0 || !is_regular(K) || !is_regular(R)) return false;
        compose();
    } else if (!P_node.empty()) {
        cv::Mat_<double> m;
        if (!read_matrix(P_node, 3, 4, m) || !is_regular(m)) return false;
        setPPM(m);
    }
    return all_finite({ K, R, T, P, P_inv, RT_inv });
}

bool PinHoleCamera::save_hmat(std::ostream& os) const
{
    for (int r = 0; r < 3; ++r)
        os.write(reinterpret_cast<const char*>(P[r]), 4 * sizeof(double));
    return !os.fail();
}

bool PinHoleCamera::load_hmat(std::istream& is)
{
    return false_if_it_throws([&] {
        cv::Mat_<double> m(3, 4);
        is.read(reinterpret_cast<char*>(m.data), 12 * sizeof(double));
        if (is.fail() || !camera_file::all_finite({ m }) || !camera_file::is_regular(m)) return false;
        PinHoleCamera fresh(*this);
        fresh.setPPM(m);
        if (!camera_file::all_finite({ fresh.K, fresh.R, fresh.T, fresh.P_inv })) return false;
        _swap(fresh);
        return true;
    });
}

bool PinHoleCamera::solvePnPRansac(
    cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points, std::vector<cv::Point3f>& object_points)
{
    return pose_by_ransac(object_points, image_points, K, {}, rvec, tvec);
}

bool PinHoleCamera::solvePnP(
    cv::Mat& rvec, cv::Mat& tvec, std::vector<cv::Point2f>& image_points, std::vector<cv::Point3f>& object_points)
{
    return pose_by_least_squares(object_points, image_points, K, {}, rvec, tvec);
}

} // namespace vexo
