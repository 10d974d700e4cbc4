#include "host/reports/file_info.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/text.h"
#include "base/whole_file.h"
#include "host/cameras/calibration_notes.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/covariance_share.h"
#include "host/cameras/rectification.h"
#include "host/files/ply.h"
#include "host/reports/accuracy_info.h"
#include "vexo/limits.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>

namespace vexo {

namespace {

constexpr std::size_t max_file_bytes = std::size_t { 1 } << 31;

cv::Mat matrix_in(const cv::FileStorage& yaml, const std::string& key)
{
    cv::Mat matrix;
    const cv::FileNode node = yaml[key];
    if (!node.empty()) node >> matrix;
    if (!matrix.empty() && (matrix.channels() != 1 || !cv::checkRange(matrix))) return {};
    if (!matrix.empty()) matrix.convertTo(matrix, CV_64F);
    return matrix;
}

/// Keys of the file are NAME_K, NAME_P, ...: the names, in the order of the file.
std::vector<std::string> camera_names(const cv::FileStorage& yaml)
{
    std::vector<std::string> names;
    for (const cv::FileNode node : yaml.root()) {
        const std::string key = node.name();
        const std::size_t end = key.size() < 2 ? std::string::npos : key.size() - 2;
        if (end == std::string::npos || (key.compare(end, 2, "_K") != 0 && key.compare(end, 2, "_P") != 0)) continue;
        const std::string name = key.substr(0, end);
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    return names;
}

Json size_in(const cv::FileStorage& yaml, const std::string& key)
{
    const cv::FileNode node = yaml[key];
    int width = 0, height = 0;
    if (!node.isSeq() || node.size() != 2 || !read_whole(node[0], width) || !read_whole(node[1], height))
        return nullptr;
    return { width, height };
}

/// Numbers of a 3 x 3 intrinsic matrix of any scale.
Json intrinsics(const cv::Mat& K)
{
    const double scale = K.at<double>(2, 2);
    return { { "fx", K.at<double>(0, 0) / scale }, { "fy", K.at<double>(1, 1) / scale },
        { "cx", K.at<double>(0, 2) / scale }, { "cy", K.at<double>(1, 2) / scale } };
}

Json describe_camera(const cv::FileStorage& yaml, const std::string& name)
{
    Json camera { { "name", name }, { "size", size_in(yaml, name + "_size") } };
    cv::Mat K = matrix_in(yaml, name + "_K"), P = matrix_in(yaml, name + "_P"), R;
    if (K.empty() && P.rows == 3 && P.cols == 4) cv::RQDecomp3x3(P.colRange(0, 3), K, R);
    if (K.rows == 3 && K.cols == 3 && K.at<double>(2, 2) != 0.0) camera.update(intrinsics(K));
    const cv::Mat D = matrix_in(yaml, name + "_D");
    if (!D.empty()) camera["distortion_coefficients"] = D.total();
    return camera;
}

/// Disparities of a range of depths, with d at infinity and f * baseline known.
Json disparity_range(double f_baseline, double infinity, const std::pair<double, double>& depth)
{
    const auto [near, far] = depth;
    return { { "near", near }, { "far", far }, { "min_disparity", infinity + f_baseline / far },
        { "max_disparity", infinity + f_baseline / near } };
}

void add_rectified(
    Json& info, double f, double baseline, double infinity, const std::optional<std::pair<double, double>>& depth)
{
    info["baseline"] = baseline;
    info["rectified_f"] = f;
    info["disparity_at_infinity"] = infinity;
    if (depth) info["disparity_range"] = disparity_range(f * baseline, infinity, *depth);
}

Json describe_stereo_yaml(const cv::FileStorage& yaml, const InfoRequest& o)
{
    Json info { { "kind", "stereo camera (YAML)" }, { "input_size", size_in(yaml, "oldcamSize") },
        { "cameras", Json::array() } };
    for (const std::string& name : camera_names(yaml))
        info["cameras"].push_back(describe_camera(yaml, name));
    const cv::Mat Q = matrix_in(yaml, "Q");
    if (Q.rows != 4 || Q.cols != 4 || Q.at<double>(3, 2) == 0.0)
        throw Failure(o.file + ": holds no reprojection matrix Q with a baseline");
    // Z = f / (a d + b): a = 1 / baseline, b = -a d_infinity
    const double f = Q.at<double>(2, 3), a = Q.at<double>(3, 2), b = Q.at<double>(3, 3);
    add_rectified(info, f, std::abs(1.0 / a), -b / a, o.depth);
    return info;
}

Json describe_camera_yaml(const cv::FileStorage& yaml, const InfoRequest& o)
{
    const std::vector<std::string> names = camera_names(yaml);
    if (names.empty()) throw Failure(o.file + ": is YAML, but holds no camera (keys NAME_K or NAME_P)");
    Json info { { "kind", names.size() == 2 ? "camera pair (YAML)" : "camera (YAML)" }, { "cameras", Json::array() } };
    for (const std::string& name : names)
        info["cameras"].push_back(describe_camera(yaml, name));
    const bool pair = std::find(names.begin(), names.end(), "cam0") != names.end()
        && std::find(names.begin(), names.end(), "cam1") != names.end();
    if (!pair && o.depth) throw Failure(o.file + ": --depth needs a file of a camera pair, cam0 and cam1");
    if (!pair && names.front() == "cam0") add_share(info, direction_share_beside(o.file));
    if (!pair) return info;
    const CalibrationNotes notes = read_notes({ o.file });
    info["unit"] = notes.unit.name + (notes.unit.stated ? "" : " (assumed: the file does not say)");
    if (!notes.verdict.empty()) info["calibration_verdict"] = notes.verdict;
    const auto cameras = read_cameras({ o.file });
    const Rectification r = rectify(cameras, cameras[0].size, -1.0, 0, cameras[0].size);
    add_rectified(info, r.P0(0, 0), r.baseline, r.P0(0, 2) - r.P1(0, 2), o.depth);
    add_accuracy({ r.P0(0, 0), r.baseline, notes.unit }, share_beside({ o.file }), o.depth, info);
    return info;
}

/// What it is of, and what follows from it for the cameras beside it.
Json describe_covariance(const InfoRequest& o)
{
    const CameraCovariance c = read_covariance(o.file).covariance;
    Json info { { "kind", "covariance of calibrated cameras (YAML)" }, { "residual_px", c.residual_px },
        { "marker_sigma_px", c.marker_sigma_px }, { "distances_mm", c.distance_mm } };
    Json deviations;
    for (int i = 0; i < c.covariance.rows; ++i)
        deviations[c.parameters[static_cast<std::size_t>(i)]] = std::sqrt(c.covariance(i, i));
    info["standard_deviations"] = deviations;
    const std::string cameras = (std::filesystem::path(o.file).parent_path() / "cameras.yaml").string();
    std::error_code ignored;
    if (!std::filesystem::exists(cameras, ignored)) {
        info["belongs_to"] = "unknown: there is no cameras.yaml beside it";
        return info;
    }
    cv::FileStorage yaml;
    if (!open_yaml(cameras, yaml)) throw Failure(cameras + ": is not a YAML file that this program reads");
    const Json own = describe_camera_yaml(yaml, { cameras, o.depth });
    info["belongs_to"] = covariance_beside({ cameras }).covariance ? "cameras.yaml beside it"
                                                                   : "another cameras.yaml than that beside it";
    for (const char* key : { "calibration_share_mm", "calibration_share_unknown", "direction_share",
             "direction_share_unknown", "expected_accuracy" })
        if (own.contains(key)) info[key] = own[key];
    return info;
}

Json describe_yaml(const InfoRequest& o)
{
    cv::FileStorage yaml;
    if (!open_yaml(o.file, yaml)) throw Failure(o.file + ": is not a YAML file that this program reads");
    return failure_if_opencv_throws(o.file + ": holds matrices of no camera", [&] {
        if (!yaml.root().isMap()) throw Failure(o.file + ": is YAML, but holds no keys");
        if (!yaml["cameras_sha256"].empty()) return describe_covariance(o);
        return yaml["StereoName"].empty() ? describe_camera_yaml(yaml, o) : describe_stereo_yaml(yaml, o);
    });
}

Json describe_hmat(const std::string& bytes, const InfoRequest& o)
{
    cv::Mat P(3, 4, CV_64F), K, R;
    std::memcpy(P.data, bytes.data(), bytes.size());
    if (!cv::checkRange(P) || cv::determinant(P.colRange(0, 3)) == 0.0)
        throw Failure(o.file + ": has the size of an hmat file, but holds no projection matrix");
    cv::RQDecomp3x3(P.colRange(0, 3), K, R);
    const cv::Mat centre = -P.colRange(0, 3).inv() * P.col(3);
    Json info { { "kind", "projection matrix (hmat)" } };
    info.update(intrinsics(K));
    info["centre"] = std::vector<double>(centre.begin<double>(), centre.end<double>());
    return info;
}

std::int32_t int_at(const std::string& bytes, std::size_t offset)
{
    std::int32_t value = 0;
    if (offset + sizeof value <= bytes.size()) std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

std::size_t padded(std::size_t offset)
{
    return (offset + 7) / 8 * 8;
}

/// Records of type, columns, rows, table, each part aligned to 8 bytes; empty when the bytes are not such.
Json tables_with_sizes(const std::string& bytes)
{
    Json tables = Json::array();
    for (std::size_t at = 0; at < bytes.size();) {
        const std::int32_t type = int_at(bytes, at), cols = int_at(bytes, at + 4), rows = int_at(bytes, at + 8);
        const std::size_t body = padded(at + 12);
        if (type < 0 || type > 0xFFF || !is_picture_size(cols, rows)) return {};
        const std::size_t size = static_cast<std::size_t>(cols) * static_cast<std::size_t>(rows) * CV_ELEM_SIZE(type);
        if (body + size > bytes.size()) return {};
        tables.push_back({ { "columns", cols }, { "rows", rows }, { "opencv_type", type } });
        at = padded(body + size);
    }
    return tables;
}

/// Records of element count and float table; empty when the bytes are not such.
Json bare_tables(const std::string& bytes)
{
    Json tables = Json::array();
    for (std::size_t at = 0; at < bytes.size();) {
        const std::int32_t count = int_at(bytes, at);
        const std::size_t body = padded(at + 4);
        if (count < 1 || body + static_cast<std::size_t>(count) * 4 > bytes.size()) return {};
        tables.push_back({ { "elements", count } });
        at = padded(body + static_cast<std::size_t>(count) * 4);
    }
    return tables;
}

Json describe_binary(const std::string& bytes, const InfoRequest& o)
{
    if (bytes.size() == 96) return describe_hmat(bytes, o);
    Json tables = tables_with_sizes(bytes);
    if (!tables.empty()) return { { "kind", "rectification tables with sizes" }, { "tables", tables } };
    tables = bare_tables(bytes);
    if (!tables.empty())
        return { { "kind", tables.size() == 4 ? "rectification tables of an hmat set" : "bare rectification tables" },
            { "tables", tables } };
    throw Failure(o.file
        + ": is none of the files that this program knows (camera or stereo YAML, hmat, "
          "rectification tables, PLY), or is damaged");
}

Json describe_ply(const std::string& bytes, const InfoRequest& o)
{
    const PlyHeader header = parse_ply_header(bytes, o.file);
    Json properties = Json::array();
    for (const PlyHeader::Property& p : header.properties)
        properties.push_back(p.type + " " + p.name);
    Json info { { "kind", "point cloud (PLY)" }, { "format", header.format }, { "points", header.vertices },
        { "properties", properties }, { "comments", header.comments } };
    if (header.format != "binary_little_endian") return info;
    const std::vector<cv::Point3f> points = read_ply(o.file);
    std::vector<float> z;
    z.reserve(points.size());
    for (const cv::Point3f& p : points)
        z.push_back(p.z);
    info["depth"] = quantiles_json(z);
    return info;
}

std::string plain_text(const Json& value)
{
    if (value.is_number_float()) {
        const double v = value.get<double>();
        return number(v, v != 0.0 && std::abs(v) < 0.001 ? 8 : 4);
    }
    if (value.is_string()) return value.get<std::string>();
    if (!value.is_structured()) return value.dump();
    std::string text;
    for (const auto& item : value.items())
        text += (text.empty() ? "" : ", ") + (value.is_object() ? item.key() + " " : "") + plain_text(item.value());
    return text;
}

} // namespace

Json describe_file(const InfoRequest& o)
{
    const std::string bytes = read_bytes(o.file, max_file_bytes);
    if (bytes.compare(0, 3, "ply") == 0) return describe_ply(bytes, o);
    if (bytes.compare(0, 5, "%YAML") == 0) return describe_yaml(o);
    return describe_binary(bytes, o);
}

std::vector<std::string> info_lines(const Json& info)
{
    std::vector<std::string> lines;
    const auto print = [&lines](std::string key, const Json& value) {
        key.resize(std::max<std::size_t>(key.size() + 1, 24), ' ');
        lines.push_back(key + plain_text(value));
    };
    for (const auto& item : info.items()) {
        const bool list = item.value().is_array() && !item.value().empty() && item.value().front().is_object();
        if (!list) print(item.key(), item.value());
        for (std::size_t i = 0; list && i < item.value().size(); ++i)
            print(item.key() + " " + std::to_string(i), item.value()[i]);
    }
    return lines;
}

} // namespace vexo
