#include "host/cameras/pair_files.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"

#include <opencv2/calib3d.hpp>

#include <cstdint>

namespace vexo {

namespace {

void write_numbers(cv::FileStorage& yaml, const std::string& key, std::initializer_list<int> numbers)
{
    yaml.startWriteStruct(key, cv::FileNode::SEQ | cv::FileNode::FLOW);
    for (const int number : numbers)
        cv::write(yaml, cv::String(), number);
    yaml.endWriteStruct();
}

/// The keys that every camera has.
void write_pinhole(cv::FileStorage& yaml, const std::string& name, cv::Size size, const cv::Mat& K, const cv::Mat& R,
    const cv::Mat& T, const cv::Mat& P)
{
    write_numbers(yaml, name + "_size", { size.width, size.height });
    cv::write(yaml, name + "_K", K);
    cv::write(yaml, name + "_R", R);
    cv::write(yaml, name + "_T", T);
    cv::write(yaml, name + "_P", P);
}

cv::Mat projection(const CalibratedCamera& camera)
{
    cv::Mat RT;
    cv::hconcat(cv::Mat(camera.R), cv::Mat(camera.T), RT);
    return cv::Mat(camera.K) * RT;
}

/// What cv::stereoRectify makes of a pair.
struct RectifiedCameras {
    cv::Size input, output;
    std::array<cv::Mat, 2> R, P;
    cv::Mat Q;
    std::array<cv::Rect, 2> roi;
    std::array<cv::Mat, 2> map_x, map_y; ///< of cv::initUndistortRectifyMap
};

RectifiedCameras rectified_cameras(const std::array<CalibratedCamera, 2>& cameras, const RectifyParam& rectify)
{
    RectifiedCameras r;
    r.input = r.output = cameras[0].size;
    const cv::Size asked(rectify.width, rectify.height);
    if (asked != cv::Size()) r.output = asked;
    const CalibratedCamera &a = cameras[0], &b = cameras[1];
    cv::stereoRectify(a.K, a.D, b.K, b.D, r.input, b.R, b.T, r.R[0], r.R[1], r.P[0], r.P[1], r.Q, rectify.flags,
        rectify.alpha, r.output, &r.roi[0], &r.roi[1]);
    for (std::size_t i = 0; i < 2; ++i)
        cv::initUndistortRectifyMap(
            cameras[i].K, cameras[i].D, r.R[i], r.P[i].colRange(0, 3), r.output, CV_32FC1, r.map_x[i], r.map_y[i]);
    return r;
}

std::string stereo_yaml(const RectifiedCameras& r)
{
    cv::FileStorage yaml = memory_yaml();
    cv::write(yaml, "StereoName", cv::String("stereo"));
    const std::array<const char*, 2> names { "stereoL", "stereoR" };
    for (std::size_t i = 0; i < 2; ++i) {
        cv::Mat K, R;
        cv::RQDecomp3x3(r.P[i].colRange(0, 3), K, R);
        write_pinhole(yaml, names[i], r.output, K, R, K.inv() * r.P[i].col(3), r.P[i]);
        const cv::Rect& roi = r.roi[i];
        write_numbers(yaml, std::string(names[i]) + "_roi", { roi.x, roi.y, roi.width, roi.height });
    }
    cv::write(yaml, "Q", r.Q);
    write_numbers(yaml, "oldcamSize", { r.input.width, r.input.height });
    cv::write(yaml, "cam0_R2", r.R[0]);
    cv::write(yaml, "cam1_R2", r.R[1]);
    return yaml.releaseAndGetString();
}

void append(std::string& bytes, std::initializer_list<std::int32_t> numbers)
{
    for (const std::int32_t number : numbers)
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    bytes.append((8 - bytes.size() % 8) % 8, '\0');
}

void append(std::string& bytes, const cv::Mat& table)
{
    bytes.append(table.ptr<char>(), table.total() * table.elemSize());
    bytes.append((8 - bytes.size() % 8) % 8, '\0');
}

/// Type, columns and rows before each table.
std::string table_file(const RectifiedCameras& r, std::size_t i)
{
    std::string bytes;
    for (const cv::Mat& table : { r.map_x[i], r.map_y[i] }) {
        append(bytes, { table.type(), table.cols, table.rows });
        append(bytes, table);
    }
    return bytes;
}

/// The number of entries before each table.
std::string bare_tables(const RectifiedCameras& r)
{
    std::string bytes;
    for (std::size_t i = 0; i < 2; ++i)
        for (const cv::Mat& table : { r.map_x[i], r.map_y[i] }) {
            append(bytes, { static_cast<std::int32_t>(table.total()) });
            append(bytes, table);
        }
    return bytes;
}

std::string projection_bytes(const cv::Mat& P)
{
    return { P.ptr<char>(), 12 * sizeof(double) };
}

} // namespace

std::string cameras_yaml(const std::vector<CalibratedCamera>& cameras)
{
    cv::FileStorage yaml = memory_yaml();
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        const CalibratedCamera& c = cameras[i];
        const std::string name = "cam" + std::to_string(i);
        write_pinhole(yaml, name, c.size, cv::Mat(c.K), cv::Mat(c.R), cv::Mat(c.T), projection(c));
        cv::write(yaml, name + "_D", c.D);
    }
    return yaml.releaseAndGetString();
}

PairFiles pair_files(const std::array<CalibratedCamera, 2>& cameras, const RectifyParam& rectify)
{
    PairFiles made;
    const bool done = value_if_opencv_throws(false, [&] {
        const RectifiedCameras r = rectified_cameras(cameras, rectify);
        made.baseline = cv::norm(cameras[1].T);
        made.files
            = { { "stereo.yaml", stereo_yaml(r) }, { "map0.bin", table_file(r, 0) }, { "map1.bin", table_file(r, 1) } };
        if (r.input != r.output) return true;
        made.files.emplace_back("hmat0.bin", projection_bytes(r.P[0]));
        made.files.emplace_back("hmat1.bin", projection_bytes(r.P[1]));
        made.files.emplace_back("hmat_tables.bin", bare_tables(r));
        return true;
    });
    if (!done) throw Failure("the pair cannot be rectified; do both cameras see the same board, side by side?");
    return made;
}

std::string board_pose_yaml(const cv::Matx44d& rectified_from_board)
{
    cv::FileStorage yaml = memory_yaml();
    cv::write(yaml, "RT", cv::Mat(rectified_from_board));
    return yaml.releaseAndGetString();
}

} // namespace vexo
