#include "camera/stereo_camera.h"

#include "base/boundary.h"
#include "camera/camera_file.h"

#include <opencv2/calib3d.hpp>

#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <utility>

namespace vexo {
namespace {

cv::Mat_<double> baseline(const UndistortCamera& cam0, const UndistortCamera& cam1)
{
    return cv::Mat_<double>(cam1.get_center() - cam0.get_center());
}

cv::Vec3d as_vector(const cv::Mat_<double>& m)
{
    return { m(0), m(1), m(2) };
}

// Row step of a caller's buffer with `halves` images side by side, 0 replaced by packed rows; 0 when it is none.
std::size_t checked_step(const uchar* buffer, std::size_t step, cv::Size image, int halves)
{
    if (buffer == nullptr || image.empty()) return 0;
    const std::size_t row = static_cast<std::size_t>(halves) * static_cast<std::size_t>(image.width);
    if (step == 0) return row;
    const std::size_t longest = PTRDIFF_MAX / static_cast<std::size_t>(image.height); // rows fit into memory
    return step < row || step > longest ? 0 : step;
}

bool have_tables(const UndistortCamera& cam, cv::Size size)
{
    return !size.empty() && cam.map1.size() == size && cam.map2.size() == size;
}

} // namespace

StereoCamera::StereoCamera(cv::Size raw_size)
    : name("stereo")
    , input_size(raw_size)
    , output_size(raw_size)
    , cam0(raw_size, "stereoL")
    , cam1(raw_size, "stereoR")
    , cam0_R2(cv::Mat_<double>::eye(3, 3))
    , cam1_R2(cv::Mat_<double>::eye(3, 3))
    , Q(cv::Mat_<double>::zeros(4, 4))
    , T(cv::Mat_<double>::zeros(3, 1))
{
}

StereoCamera::StereoCamera(const DistortCamera* cams, double alpha, int flags, cv::Size new_size,
    const cv::Scalar& fill0, const cv::Scalar& fill1)
    : StereoCamera(cams[0].size)
{
    if (new_size != cv::Size(0, 0)) output_size = new_size;
    cam0.size = output_size;
    cam1.size = output_size;
    cam0.fill = fill0;
    cam1.fill = fill1;

    const cv::Mat_<double> cam1_from_cam0(cams[1].RT * cams[0].RT_inv);
    const cv::Mat_<double> rotation = cam1_from_cam0(cv::Rect(0, 0, 3, 3)).clone();
    const cv::Mat_<double> translation = cam1_from_cam0(cv::Rect(3, 0, 1, 3)).clone();
    cv::Mat_<double> P0;
    cv::Mat_<double> P1;
    cv::stereoRectify(cams[0].normalised_K(), cams[0].D, cams[1].normalised_K(), cams[1].D, input_size, rotation,
        translation, cam0_R2, cam1_R2, P0, P1, Q, flags, alpha, output_size, &cam0.roi, &cam1.roi);
    cam0.setPPM(P0);
    cam1.setPPM(P1);
    cam0.initMap(cams[0], cam0_R2);
    cam1.initMap(cams[1], cam1_R2);
    T = baseline(cam0, cam1);
}

StereoCamera::StereoCamera(const StereoCamera& other)
    : name(other.name)
    , input_size(other.input_size)
    , output_size(other.output_size)
    , cam0(other.cam0)
    , cam1(other.cam1)
    , cam0_R2(other.cam0_R2.clone())
    , cam1_R2(other.cam1_R2.clone())
    , Q(other.Q.clone())
    , T(other.T.clone())
{
}

StereoCamera& StereoCamera::operator=(const StereoCamera& other)
{
    *this = StereoCamera(other);
    return *this;
}

std::uint64_t StereoCamera::_next_serial() noexcept
{
    static std::atomic<std::uint64_t> last { 0 };
    return ++last;
}

void StereoCamera::destroy()
{
    delete this;
}

double StereoCamera::get_baseline_length() const
{
    return cv::norm(T, cv::NORM_L2);
}

void StereoCamera::get_inpimage_size(int* width, int* height) const
{
    if (width != nullptr) *width = input_size.width;
    if (height != nullptr) *height = input_size.height;
}

void StereoCamera::get_outimage_size(int* width, int* height) const
{
    if (width != nullptr) *width = output_size.width;
    if (height != nullptr) *height = output_size.height;
}

bool StereoCamera::remap(
    unsigned char* src, unsigned long src_step, unsigned char* dst, unsigned long dst_step, int which)
{
    if (which < 0 || which > 2) return false;
    const int halves = which == 2 ? 2 : 1;
    src_step = checked_step(src, src_step, input_size, halves);
    dst_step = checked_step(dst, dst_step, output_size, halves);
    if (src_step == 0 || dst_step == 0) return false;
    if (which != 1 && !have_tables(cam0, output_size)) return false;
    if (which != 0 && !have_tables(cam1, output_size)) return false;
    return false_if_it_throws([&] {
        cv::Mat raw(input_size.height, halves * input_size.width, CV_8UC1, src, src_step);
        cv::Mat rectified(output_size.height, halves * output_size.width, CV_8UC1, dst, dst_step);
        const std::less<const uchar*> before;
        if (which == 2 && before(raw.datastart, rectified.dataend) && before(rectified.datastart, raw.dataend))
            raw = raw.clone(); // the first half written must not spoil the second half read
        bool done = true;
        for (int half = 0; half < halves; ++half) {
            const UndistortCamera& cam = which == 1 || half == 1 ? cam1 : cam0;
            cv::Mat to = rectified.colRange(half * output_size.width, (half + 1) * output_size.width);
            done = cam.remap(raw.colRange(half * input_size.width, (half + 1) * input_size.width), to) && done;
        }
        return done;
    });
}

cv::Mat_<double> StereoCamera::_baseline_in_cam0() const
{
    return cv::Mat_<double>(cam0.R * T);
}

bool StereoCamera::is_horizontal_stereo() const
{
    const cv::Mat_<double> b(_baseline_in_cam0());
    return std::abs(b(1)) < std::abs(b(0));
}

bool StereoCamera::is_usable() const
{
    using namespace camera_file;
    const double length = get_baseline_length();
    return is_picture_size(input_size) && is_picture_size(output_size) && std::isfinite(length) && length > 0.0
        && is_regular(cam0.P) && is_regular(cam1.P)
        && all_finite({ Q, cam0_R2, cam1_R2, cam0.P, cam0.P_inv, cam0.RT_inv, cam1.P, cam1.P_inv, cam1.RT_inv });
}

void StereoCamera::_name_cameras()
{
    cam0.name = name + "L";
    cam1.name = name + "R";
}

void StereoCamera::_swap(StereoCamera& other) noexcept
{
    std::swap(*this, other);
}

bool StereoCamera::save(const cv::FileStorage* fs)
{
    if (!camera_file::is_key_name(name) || cam0.name == cam1.name) return false;
    // A storage is a handle: writing through it does not change the handle that the caller keeps.
    auto* storage = const_cast<cv::FileStorage*>(fs);
    return camera_file::save_yaml(storage, name, [this](cv::FileStorage& given) { return _write(given); });
}

bool StereoCamera::_write(cv::FileStorage& fs)
{
    _name_cameras();
    cv::write(fs, "StereoName", name);
    if (!cam0.save(&fs) || !cam1.save(&fs)) return false;
    cv::write(fs, "Q", Q);
    fs.startWriteStruct("oldcamSize", cv::FileNode::SEQ | cv::FileNode::FLOW);
    cv::write(fs, cv::String(), input_size.width);
    cv::write(fs, cv::String(), input_size.height);
    fs.endWriteStruct();
    cv::write(fs, "cam0_R2", cam0_R2);
    cv::write(fs, "cam1_R2", cam1_R2);
    return true;
}

bool StereoCamera::load(const cv::FileStorage* fs)
{
    auto* storage = const_cast<cv::FileStorage*>(fs); // read only
    return camera_file::load_yaml(storage, name, [this](cv::FileStorage& given) {
        StereoCamera fresh(*this);
        if (!fresh._read(given)) return false;
        _swap(fresh);
        return true;
    });
}

// Leaves a half-read pair behind on failure: only for fresh copies.
bool StereoCamera::_read(cv::FileStorage& fs)
{
    using namespace camera_file;
    const cv::FileNode stereo_name = find(fs, "StereoName");
    if (!stereo_name.isString() || !is_key_name(stereo_name.string())) return false;
    name = stereo_name.string();
    const auto holds = [&fs](const UndistortCamera& cam) {
        return !find(fs, cam.name + "_size").empty() && has_projection(fs, cam.name);
    };
    const std::string present[] = { cam0.name, cam1.name };
    _name_cameras();
    if (!holds(cam0) || !holds(cam1)) cam0.name = present[0], cam1.name = present[1];
    for (UndistortCamera* cam : { &cam0, &cam1 })
        if (!holds(*cam) || !cam->load(&fs)) return false;
    if (cam0.size != cam1.size) return false;
    output_size = cam0.size;

    if (!read_matrix(find(fs, "Q"), 4, 4, Q)) return false;
    const cv::FileNode raw_size = find(fs, "oldcamSize");
    int v[2] = {};
    if (read_ints(raw_size, 2, v)) input_size = cv::Size(v[0], v[1]);
    if (!read_matrix(find(fs, "cam0_R2"), 3, 3, cam0_R2) || !read_matrix(find(fs, "cam1_R2"), 3, 3, cam1_R2))
        return false;
    T = baseline(cam0, cam1);
    return is_usable();
}

bool StereoCamera::convert_coordinate_system(const cv::Mat_<double>& M)
{
    return false_if_it_throws([&] {
        if (M.rows != 4 || M.cols != 4 || !camera_file::all_finite({ M }) || cv::determinant(M) == 0.0) return false;
        StereoCamera moved(*this);
        for (UndistortCamera* cam : { &moved.cam0, &moved.cam1 }) {
            const cv::Mat_<double> projection(cam->P * M);
            cam->setPPM(projection(cv::Rect(0, 0, 4, 3)));
        }
        moved.Q = M.inv() * Q;
        moved.T = baseline(moved.cam0, moved.cam1);
        if (!camera_file::all_finite({ moved.Q, moved.T, moved.cam0.P_inv, moved.cam1.P_inv })) return false;
        _swap(moved);
        return true;
    });
}

void StereoCamera::recalculationQ()
{
    const cv::Mat_<double> cam1_in_cam0(cam1.P * cam0.RT_inv);
    cv::Mat_<double> K1;
    cv::Mat_<double> R;
    cv::RQDecomp3x3(cam1_in_cam0(cv::Rect(0, 0, 3, 3)), K1, R);
    const cv::Mat_<double> camera1_translation(K1.inv() * cam1_in_cam0(cv::Rect(3, 0, 1, 3)));
    const cv::Mat_<double> t(R.t() * camera1_translation); // back in camera 0's axes: R is 1 but for signs
    K1 /= K1(2, 2);
    const cv::Mat_<double> K0(cam0.normalised_K());

    T = baseline(cam0, cam1);
    const int axis = is_horizontal_stereo() ? 0 : 1;
    cv::Mat_<double> cam0_Q(cv::Mat_<double>::zeros(4, 4));
    cam0_Q(0, 0) = cam0_Q(1, 1) = 1.0;
    cam0_Q(0, 3) = -K0(0, 2);
    cam0_Q(1, 3) = -K0(1, 2);
    cam0_Q(2, 3) = K0(0, 0);
    cam0_Q(3, 2) = -1.0 / t(axis);
    cam0_Q(3, 3) = (K0(axis, 2) - K1(axis, 2)) / t(axis);
    Q = cam0.RT_inv * cam0_Q;
}

bool StereoCamera::get3dposition(double* xyz, int x, int y, double disparity)
{
    if (xyz == nullptr) return false;
    const cv::Vec3d point = get3dposition_Q(x, y, disparity);
    std::copy(point.val, point.val + 3, xyz);
    return true;
}

bool StereoCamera::get3dposition(double* xyz, const double* pt0, const double* pt1)
{
    if (xyz == nullptr || pt0 == nullptr || pt1 == nullptr) return false;
    bool valid = false;
    const cv::Vec3d point = get3dposition_P({ pt0[0], pt0[1] }, { pt1[0], pt1[1] }, &valid);
    if (valid) std::copy(point.val, point.val + 3, xyz);
    return valid;
}

bool StereoCamera::get3dposition(double* xyz, double maxdist, const double* pt0, const double* pt1)
{
    if (xyz == nullptr || pt0 == nullptr || pt1 == nullptr) return false;
    double dist = 0.0;
    const cv::Vec3d point = get3dposition_V({ pt0[0], pt0[1] }, { pt1[0], pt1[1] }, dist);
    if (dist > maxdist) return false;
    std::copy(point.val, point.val + 3, xyz);
    return true;
}

cv::Vec3d StereoCamera::get3dposition_Q(double x, double y, double d) const
{
    double h[4];
    for (int r = 0; r < 4; ++r)
        h[r] = Q(r, 0) * x + Q(r, 1) * y + Q(r, 2) * d + Q(r, 3);
    const double reciprocal = 1.0 / h[3];
    return { h[0] * reciprocal, h[1] * reciprocal, h[2] * reciprocal };
}

cv::Vec3d StereoCamera::get3dposition_P(const cv::Point2d& p0, const cv::Point2d& p1, bool* valid) const
{
    const cv::Mat_<double>* projections[2] = { &cam0.P, &cam1.P };
    const cv::Point2d pixels[2] = { p0, p1 };
    cv::Matx<double, 4, 3> A;
    cv::Vec4d b;
    for (int cam = 0; cam < 2; ++cam) {
        const cv::Mat_<double>& P = *projections[cam];
        const double pixel[2] = { pixels[cam].x, pixels[cam].y };
        for (int axis = 0; axis < 2; ++axis) {
            for (int j = 0; j < 3; ++j)
                A(2 * cam + axis, j) = pixel[axis] * P(2, j) - P(axis, j);
            b[2 * cam + axis] = P(axis, 3) - pixel[axis] * P(2, 3);
        }
    }
    const cv::Matx33d normal = A.t() * A;
    const bool regular = cv::determinant(normal) != 0.0;
    if (valid != nullptr) *valid = regular;
    if (!regular) return { 0.0, 0.0, 0.0 };
    const cv::Vec3d right_side = A.t() * b;
    return normal.inv(cv::DECOMP_LU) * right_side;
}

cv::Vec3d StereoCamera::position_from_sv(
    const cv::Vec3d& sv0, const cv::Vec3d& sv1, double& dist, const cv::Vec3d& c0, const cv::Vec3d& c1) const
{
    const double dot = sv0[0] * sv1[0] + sv0[1] * sv1[1] + sv0[2] * sv1[2];
    if (dot == 1.0) {
        dist = DBL_MAX;
        return { 0.0, 0.0, 0.0 };
    }
    const double k = 1.0 / (1.0 - dot * dot);
    const cv::Vec3d w = as_vector(T);
    const double a = w.dot(sv0);
    const double b = w.dot(sv1);
    const double t0 = (a - b * dot) * k;
    const double t1 = (dot * a - b) * k;
    const cv::Vec3d q0 = c0 + t0 * sv0;
    const cv::Vec3d q1 = c1 + t1 * sv1;
    dist = cv::norm(q0 - q1, cv::NORM_L2);
    return (q0 + q1) * 0.5;
}

cv::Vec3d StereoCamera::get3dposition_V(const cv::Point2d& p0, const cv::Point2d& p1, double& dist) const
{
    const cv::Vec3d c0 = as_vector(cam0.get_center());
    const cv::Vec3d c1 = as_vector(cam1.get_center());
    const cv::Vec3d sv1 = cam1.get_sight_vector(p1);
    const cv::Vec3d sv0 = cam0.get_sight_vector(p0);
    return position_from_sv(sv0, sv1, dist, c0, c1);
}

double StereoCamera::convert_distance_to_disparity(double distance) const
{
    cv::Mat_<double> A0(cv::Mat_<double>::zeros(3, 4));
    cam0.K.copyTo(A0(cv::Rect(0, 0, 3, 3)));
    const cv::Mat_<double> A1(cam1.P * cam0.RT_inv);
    const cv::Vec3d half = as_vector(_baseline_in_cam0()) * 0.5;
    const cv::Point3d X(-half[0], -half[1], distance - half[2]);
    const cv::Point2d u0 = project3d_2d(A0, X);
    const cv::Point2d u1 = project3d_2d(A1, X);
    return is_horizontal_stereo() ? u0.x - u1.x : u0.y - u1.y;
}

} // namespace vexo
