#include "host/cameras/camera_file.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/whole_file.h"

#include <opencv2/calib3d.hpp>

#include <cmath>

namespace vexo {

namespace {

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

} // namespace

bool read_matrix(const cv::FileStorage& file, const std::string& key, int rows, int cols, cv::Mat& out)
{
    cv::Mat read;
    file[key] >> read;
    const bool fits = read.rows == rows && read.cols == cols && read.channels() == 1 && cv::checkRange(read);
    if (fits) read.convertTo(out, CV_64F);
    return fits;
}

bool has_camera(const std::string& path, const std::string& name)
{
    cv::FileStorage file;
    return open_yaml(path, file) && file.root().isMap() && !(file[name + "_K"].empty() && file[name + "_P"].empty());
}

CalibratedCamera read_camera(const std::string& path, const std::string& name)
{
    read_bytes(path, max_yaml_bytes); // says what is wrong with the file itself
    cv::FileStorage file;
    if (!open_yaml(path, file)) throw Failure(path + ": is not a calibration file (YAML)");
    CalibratedCamera camera;
    const bool complete = failure_if_opencv_throws(
        path + ": the keys of " + name + " do not hold the matrices of a camera", [&] {
            const cv::FileNode size = file[name + "_size"];
            cv::Size read;
            if (size.isSeq() && size.size() == 2 && read_whole(size[0], read.width) && read_whole(size[1], read.height))
                camera.size = read;
            file[name + "_D"] >> camera.D;
            if (!camera.D.empty()) camera.D.convertTo(camera.D, CV_64F);
            return read_projection(file, name, camera);
        });
    if (complete) return camera;
    throw Failure(path + ": has no camera \"" + name + "\" (keys " + name + "_K, " + name + "_R, " + name
        + "_T); calibrate with vexo's own format");
}

std::array<CalibratedCamera, 2> read_cameras(const std::vector<std::string>& files)
{
    return { read_camera(files.front(), "cam0"), read_camera(files.size() > 1 ? files[1] : files.front(), "cam1") };
}

} // namespace vexo
