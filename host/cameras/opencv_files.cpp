#include "host/cameras/opencv_files.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"

#include <algorithm>

namespace vexo {

namespace {

/// The files as they are searched for keys.
class Yamls {
public:
    explicit Yamls(const std::vector<std::string>& files)
        : _files(files)
        , _yamls(files.size())
    {
        for (std::size_t i = 0; i < files.size(); ++i)
            if (!open_yaml(files[i], _yamls[i]) || !_yamls[i].root().isMap())
                throw Failure(files[i] + ": is not a calibration file (YAML)");
    }

    /// The matrix of that key, double. Throws Failure when no file has it, or two have, or it is of another size.
    cv::Mat matrix(const std::string& key, int rows, int cols) const
    {
        const std::size_t file = _file_with(key);
        const std::string fault = _files[file] + ": " + key + " is no matrix of " + std::to_string(rows) + " x "
            + std::to_string(cols) + " finite numbers";
        return failure_if_opencv_throws(fault, [&] {
            cv::Mat read;
            if (!read_matrix(_yamls[file], key, rows, cols, read)) throw Failure(fault);
            return read;
        });
    }

    /// Distortion coefficients, in a row or a column.
    cv::Mat distortion(const std::string& key) const
    {
        const std::size_t file = _file_with(key);
        const std::string fault = _files[file] + ": " + key + " does not hold 4, 5, 8, 12 or 14 coefficients";
        return failure_if_opencv_throws(fault, [&] {
            for (const int count : { 4, 5, 8, 12, 14 }) {
                cv::Mat read;
                if (read_matrix(_yamls[file], key, 1, count, read) || read_matrix(_yamls[file], key, count, 1, read))
                    return cv::Mat(read.reshape(1, 1));
            }
            throw Failure(fault);
        });
    }

private:
    std::size_t _file_with(const std::string& key) const
    {
        std::vector<std::size_t> with;
        for (std::size_t i = 0; i < _yamls.size(); ++i)
            if (!_yamls[i][key].empty()) with.push_back(i);
        if (with.size() == 1) return with.front();
        if (with.size() > 1) throw Failure(_files[0] + ", " + _files[1] + ": both have the key " + key);
        throw Failure(_files.front() + (_files.size() > 1 ? ", " + _files[1] : "") + ": no key " + key
            + "; give both, intrinsics.yml (M1 D1 M2 D2) and extrinsics.yml (R T)");
    }

    std::vector<std::string> _files;
    std::vector<cv::FileStorage> _yamls;
};

CalibratedCamera intrinsics(const Yamls& yamls, const std::string& number, cv::Size frames)
{
    CalibratedCamera camera;
    camera.size = frames;
    camera.K = cv::Matx33d(yamls.matrix("M" + number, 3, 3).ptr<double>());
    camera.D = yamls.distortion("D" + number);
    const bool usual
        = camera.K(0, 0) > 0 && camera.K(1, 1) > 0 && camera.K(2, 0) == 0 && camera.K(2, 1) == 0 && camera.K(2, 2) == 1;
    if (!usual) throw Failure("M" + number + " of the calibration is no camera matrix (fx 0 cx; 0 fy cy; 0 0 1)");
    if (cv::Rect2d({ 0, 0 }, cv::Size2d(frames)).contains({ camera.K(0, 2), camera.K(1, 2) })) return camera;
    throw Failure("M" + number + " of the calibration has its principal point outside frames of "
        + std::to_string(frames.width) + " x " + std::to_string(frames.height)
        + "; calibrate at the size at which you record");
}

} // namespace

OpenCvKeys opencv_keys(const std::string& file)
{
    cv::FileStorage yaml;
    if (!open_yaml(file, yaml) || !yaml.root().isMap()) return {};
    const auto has = [&yaml](const char* key) { return !yaml[key].empty(); };
    const bool ours = has("cam0_K") || has("cam0_P") || has("cam1_K") || has("cam1_P");
    return { !ours && (has("M1") || has("M2")), !ours && has("R") && has("T") };
}

std::array<CalibratedCamera, 2> read_opencv_cameras(const std::vector<std::string>& files, cv::Size frames)
{
    const Yamls yamls(files);
    std::array<CalibratedCamera, 2> cameras { intrinsics(yamls, "1", frames), intrinsics(yamls, "2", frames) };
    const cv::Mat R = yamls.matrix("R", 3, 3);
    if (cv::norm(R * R.t(), cv::Mat::eye(3, 3, CV_64F), cv::NORM_INF) > 1e-3 || cv::determinant(R) < 0.0)
        throw Failure(files.back() + ": R is no rotation; is it the file that the stereo calibration wrote?");
    cameras[1].R = cv::Matx33d(R.ptr<double>());
    cameras[1].T = cv::Vec3d(yamls.matrix("T", 3, 1).ptr<double>());
    return cameras;
}

std::string camera_yaml(const std::array<CalibratedCamera, 2>& cameras)
{
    cv::FileStorage storage = memory_yaml();
    for (std::size_t i = 0; i < 2; ++i) {
        const std::string name = "cam" + std::to_string(i);
        storage << name + "_size"
                << "[:" << cameras[i].size.width << cameras[i].size.height << "]";
        cv::write(storage, name + "_K", cv::Mat(cameras[i].K));
        cv::write(storage, name + "_R", cv::Mat(cameras[i].R));
        cv::write(storage, name + "_T", cv::Mat(cameras[i].T));
        cv::write(storage, name + "_D", cameras[i].D.empty() ? cv::Mat(cv::Mat::zeros(1, 5, CV_64F)) : cameras[i].D);
    }
    return storage.releaseAndGetString();
}

} // namespace vexo
