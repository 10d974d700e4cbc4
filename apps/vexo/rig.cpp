#include "rig.h"

#include "common.h"

#include "base/whole_file.h"

#include "base/plain_yaml.h"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace vexo::app {

namespace {

/// Reads a matrix of rows x cols; false when it is absent or something else.
bool read_matrix(const cv::FileStorage& file, const std::string& key, int rows, int cols, cv::Mat& out)
{
    cv::Mat read;
    file[key] >> read;
    const bool fits = read.rows == rows && read.cols == cols && read.channels() == 1 && cv::checkRange(read);
    if (fits) read.convertTo(out, CV_64F);
    return fits;
}

/// K, R, T from the keys of that name, or from P = K (R | T).
bool read_projection(const cv::FileStorage& file, const std::string& name, CalibratedCamera& camera)
{
    cv::Mat K, R, T, P;
    if (!read_matrix(file, name + "_K", 3, 3, K) || !read_matrix(file, name + "_R", 3, 3, R)
        || !read_matrix(file, name + "_T", 3, 1, T)) {
        if (!read_matrix(file, name + "_P", 3, 4, P)) return false;
        cv::RQDecomp3x3(P.colRange(0, 3), K, R);
        T = K.inv() * P.col(3);
    }
    camera.K = cv::Matx33d(K.ptr<double>());
    camera.R = cv::Matx33d(R.ptr<double>());
    camera.T = cv::Vec3d(T.ptr<double>());
    return std::abs(cv::determinant(camera.K)) > 0.0;
}

std::string size_text(cv::Size size)
{
    return std::to_string(size.width) + " x " + std::to_string(size.height);
}

cv::Vec3d point_at(iStereoCamera& camera, int x, int y, double disparity)
{
    cv::Vec3d xyz;
    camera.get3dposition(xyz.val, x, y, disparity);
    return xyz;
}

} // namespace

CalibratedCamera read_camera(const std::string& path, const std::string& name)
{
    read_bytes(path, max_yaml_bytes); // says what is wrong with the file itself
    cv::FileStorage file;
    if (!open_yaml(path, file)) throw Failure(path + ": is not a calibration file (YAML)");
    CalibratedCamera camera;
    try {
        const cv::FileNode size = file[name + "_size"];
        cv::Size read;
        if (size.isSeq() && size.size() == 2 && read_whole(size[0], read.width) && read_whole(size[1], read.height))
            camera.size = read;
        file[name + "_D"] >> camera.D;
        if (!camera.D.empty()) camera.D.convertTo(camera.D, CV_64F);
        if (read_projection(file, name, camera)) return camera;
    } catch (const cv::Exception&) {
        throw Failure(path + ": the keys of " + name + " do not hold the matrices of a camera");
    }
    throw Failure(path + ": has no camera \"" + name + "\" (keys " + name + "_K, " + name + "_R, " + name
        + "_T); calibrate with vexo's own format");
}

std::array<CalibratedCamera, 2> read_cameras(const std::vector<std::string>& files)
{
    return { read_camera(files.front(), "cam0"), read_camera(files.size() > 1 ? files[1] : files.front(), "cam1") };
}

Rectification rectify(
    const std::array<CalibratedCamera, 2>& cameras, cv::Size input, double alpha, int flags, cv::Size output)
{
    const cv::Matx33d R = cameras[1].R * cameras[0].R.t();
    const cv::Vec3d T = cameras[1].T - R * cameras[0].T;
    cv::Mat R0, R1, P0, P1, Q;
    cv::stereoRectify(
        cameras[0].K, cameras[0].D, cameras[1].K, cameras[1].D, input, R, T, R0, R1, P0, P1, Q, flags, alpha, output);
    return { cv::Matx33d(R0.ptr<double>()), cv::Matx34d(P0.ptr<double>()), cv::Matx34d(P1.ptr<double>()), cv::norm(T) };
}

Geometry probe_geometry(iStereoCamera& camera)
{
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    // Two disparities on either side of infinity cannot both be at it.
    constexpr double d0 = -100.0, d1 = 100.0, d2 = 300.0;
    Geometry g;
    const double inverse0 = 1.0 / point_at(camera, 0, 0, d0)[2];
    const double inverse1 = 1.0 / point_at(camera, 0, 0, d1)[2];
    g.slope = (inverse1 - inverse0) / (d1 - d0);
    g.offset = inverse0 - g.slope * d0;

    const double d = std::isfinite(point_at(camera, 0, 0, d1)[2]) ? d1 : d0;
    const cv::Vec3d origin = point_at(camera, 0, 0, d), right = point_at(camera, width - 1, 0, d);
    g.f = (width - 1) * origin[2] / (right[0] - origin[0]);
    g.cx = -g.f * origin[0] / origin[2];
    g.cy = -g.f * origin[1] / origin[2];

    bool holds = std::isfinite(g.f) && std::isfinite(g.slope) && g.slope != 0.0;
    for (const cv::Point pixel : { cv::Point(0, 0), cv::Point(width - 1, height - 1), cv::Point(0, height - 1) }) {
        const double inverse = 1.0 / point_at(camera, pixel.x, pixel.y, d2)[2];
        holds = holds && std::abs(inverse - (g.slope * d2 + g.offset)) <= 1e-9 * std::abs(inverse);
    }
    if (!holds)
        throw Failure("the stereo camera's points do not lie in the axes of rectified camera 0; use a set "
                      "that was stored without a board frame");
    return g;
}

StereoCameraPtr open_stereo_camera(const std::vector<std::string>& files, const StereoCameraParam& param)
{
    const int selector = files.size() >= 3 ? 1 : 2;
    StereoCameraPtr camera(CreateStereoCamera(selector, &files, &param));
    if (camera) return camera;

    for (const std::string& file : files)
        read_bytes(file, std::size_t { 1 } << 31);
    if (selector == 1)
        throw Failure(files[0] + ": these three files are no hmat set for images of "
            + size_text({ param.inp_width, param.inp_height }));
    const std::array<CalibratedCamera, 2> cameras = read_cameras(files);
    for (std::size_t i = 0; i < 2; ++i) {
        const cv::Size frames(param.inp_width, param.inp_height);
        if (cameras[i].size != frames)
            throw Failure(files[std::min(i, files.size() - 1)] + ": cam" + std::to_string(i) + " is calibrated for "
                + size_text(cameras[i].size) + ", but the frames are " + size_text(frames)
                + "; record at that size, or calibrate at this one");
    }
    throw Failure(files[0] + ": these cameras make no stereo pair; check baseline, focal lengths and sizes");
}

cv::Mat rectified(iStereoCamera& camera, const cv::Mat& raw, int which)
{
    int width = 0, height = 0;
    camera.get_outimage_size(&width, &height);
    cv::Mat out(height, width, CV_8U, cv::Scalar(0));
    if (!camera.remap(raw.data, raw.step, out.data, out.step, which))
        throw Failure("the stereo camera has no rectification tables");
    return out;
}

} // namespace vexo::app
