#include "host/cameras/stereo_file.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/cameras/camera_file.h"

#include <cstdint>
#include <cstring>

namespace vexo {

namespace {

cv::Size size_in(const cv::FileNode& node)
{
    int width = 0, height = 0;
    const bool read = node.isSeq() && node.size() == 2 && read_whole(node[0], width) && read_whole(node[1], height);
    return read ? cv::Size(width, height) : cv::Size();
}

/// Names of the cameras: the first two keys that end in _P.
std::vector<std::string> names_in(const cv::FileStorage& yaml)
{
    std::vector<std::string> names;
    for (const std::string& key : yaml.root().keys())
        if (key.size() > 2 && key.compare(key.size() - 2, 2, "_P") == 0) names.push_back(key.substr(0, key.size() - 2));
    return names;
}

cv::Vec3d centre(const cv::Matx34d& P)
{
    return -(P.get_minor<3, 3>(0, 0).inv() * cv::Vec3d(P(0, 3), P(1, 3), P(2, 3)));
}

bool fill(const cv::FileStorage& yaml, StereoFile& stereo)
{
    const std::vector<std::string> names = names_in(yaml);
    cv::Mat P0, P1, R;
    if (names.size() != 2 || !read_matrix(yaml, names[0] + "_P", 3, 4, P0)
        || !read_matrix(yaml, names[1] + "_P", 3, 4, P1))
        return false;
    stereo.P0 = cv::Matx34d(P0.ptr<double>());
    stereo.P1 = cv::Matx34d(P1.ptr<double>());
    stereo.input_size = size_in(yaml["oldcamSize"]);
    stereo.output_size = size_in(yaml[names[0] + "_size"]);
    stereo.baseline = cv::norm(centre(stereo.P0) - centre(stereo.P1));
    if (read_matrix(yaml, "cam0_R2", 3, 3, R)) stereo.rotation0 = cv::Matx33d(R.ptr<double>());
    return !stereo.input_size.empty() && !stereo.output_size.empty() && std::isfinite(stereo.baseline)
        && stereo.baseline > 0.0;
}

std::size_t padded(std::size_t offset)
{
    return (offset + 7) / 8 * 8;
}

/// Both tables of a table file (type, columns, rows and floats each) in the form of an hmat set: a count and the
/// floats.
std::string bare_tables(const std::string& file, cv::Size size)
{
    const std::size_t floats = static_cast<std::size_t>(size.area()) * sizeof(float);
    const std::size_t record = 16 + padded(floats);
    const std::string bytes = read_bytes(file, 2 * record);
    if (bytes.size() != 2 * record)
        throw Failure(file + ": is no table file for rectified pictures of " + size_text(size.width, size.height)
            + "; calibrate again");
    std::string bare;
    for (std::size_t at = 0; at < bytes.size(); at += record) {
        std::int32_t header[3];
        std::memcpy(header, bytes.data() + at, sizeof header);
        if (header[0] != CV_32FC1 || header[1] != size.width || header[2] != size.height)
            throw Failure(file + ": holds tables of another kind or size than its stereo file says; calibrate again");
        const std::int32_t count[2] = { size.area(), 0 };
        bare.append(reinterpret_cast<const char*>(count), sizeof count);
        bare.append(bytes, at + 16, record - 16);
    }
    return bare;
}

std::string put(const TemporaryFolder& folder, const std::string& name, const std::string& bytes)
{
    if (!write_file(folder / name, bytes)) fail_with(errno, folder / name);
    return folder / name;
}

std::string raw_bytes(const cv::Matx34d& P)
{
    return { reinterpret_cast<const char*>(P.val), sizeof P.val };
}

} // namespace

bool is_stereo_file(const std::string& file)
{
    cv::FileStorage yaml;
    return open_yaml(file, yaml) && yaml.root().isMap() && !yaml["StereoName"].empty();
}

StereoFile read_stereo_file(const std::string& file)
{
    cv::FileStorage yaml;
    StereoFile stereo;
    const std::string fault = file + ": holds no pair of rectified cameras; use the cameras.yaml of the calibration";
    if (!open_yaml(file, yaml) || !failure_if_opencv_throws(fault, [&] { return fill(yaml, stereo); }))
        throw Failure(fault);
    return stereo;
}

std::vector<std::string> as_hmat_set(const std::vector<std::string>& files, const TemporaryFolder& folder)
{
    const StereoFile stereo = read_stereo_file(files[0]);
    if (stereo.input_size != stereo.output_size)
        throw Failure(files[0]
            + ": its rectified pictures have another size than the raw ones, which no hmat set can "
              "express; give the cameras.yaml of the calibration");
    const std::string tables = bare_tables(files[1], stereo.output_size) + bare_tables(files[2], stereo.output_size);
    return { put(folder, "hmat0.bin", raw_bytes(stereo.P0)), put(folder, "hmat1.bin", raw_bytes(stereo.P1)),
        put(folder, "hmat_tables.bin", tables) };
}

} // namespace vexo
