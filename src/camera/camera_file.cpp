#include "camera/camera_file.h"

#include <cmath>
#include <cstdint>

namespace vexo {
namespace camera_file {
namespace {

// Elements of the largest matrix in a camera file, the 4x4 Q; D has at most 14.
constexpr std::int64_t max_elements = 16;

bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool read_int(const cv::FileNode& node, int& value)
{
    if (!node.isInt()) return false;
    value = static_cast<int>(node);
    return true;
}

// One letter: a one-channel element type of cv::Mat.
bool is_one_channel(const cv::FileNode& dt)
{
    if (!dt.isString()) return false;
    const std::string type = dt.string();
    return type.size() == 1 && std::string("ucwsifd").find(type) != std::string::npos;
}

} // namespace

bool is_key_name(const std::string& name)
{
    constexpr std::size_t longest = 200; // the default file's name must fit into a directory entry
    if (name.empty() || name.size() > longest || !(is_letter(name[0]) || name[0] == '_')) return false;
    for (const char c : name) {
        const bool digit = c >= '0' && c <= '9';
        if (!is_letter(c) && !digit && c != '_' && c != '-' && c != ' ') return false;
    }
    return true;
}

cv::FileNode find(const cv::FileStorage& fs, const std::string& key)
{
    const cv::FileNode root = fs.root();
    return root.isMap() ? root[key] : cv::FileNode();
}

bool has_projection(const cv::FileStorage& fs, const std::string& name)
{
    const auto has = [&](const char* suffix) { return !find(fs, name + suffix).empty(); };
    return (has("_K") && has("_R") && has("_T")) || has("_P");
}

bool read_ints(const cv::FileNode& node, int count, int* values)
{
    if (!node.isSeq() || node.size() != static_cast<std::size_t>(count)) return false;
    cv::FileNodeIterator it = node.begin();
    for (int i = 0; i < count; ++i, ++it)
        if (!read_whole(*it, values[i])) return false;
    return true;
}

bool read_size(const cv::FileNode& node, cv::Size& size)
{
    int v[2] = {};
    if (!read_ints(node, 2, v)) return false;
    const cv::Size read(v[0], v[1]);
    if (read != cv::Size() && !is_picture_size(read)) return false;
    size = read;
    return true;
}

bool read_matrix(const cv::FileNode& node, cv::Mat_<double>& m)
{
    int rows = 0;
    int cols = 0;
    if (!node.isMap() || !read_int(node["rows"], rows) || !read_int(node["cols"], cols)) return false;
    if (!is_one_channel(node["dt"]) || rows < 0 || cols < 0) return false;
    const std::int64_t count = std::int64_t { rows } * cols;
    const cv::FileNode data = node["data"];
    if (count > max_elements || data.size() != static_cast<std::size_t>(count)) return false;
    if (count == 0) {
        m = cv::Mat_<double>();
        return true;
    }
    if (!data.isSeq()) return false;

    cv::Mat_<double> read(rows, cols);
    cv::FileNodeIterator it = data.begin();
    for (double* value = read[0]; value != read[0] + count; ++value, ++it) {
        const cv::FileNode number = *it;
        if (!number.isInt() && !number.isReal()) return false;
        *value = static_cast<double>(number);
        if (!std::isfinite(*value)) return false;
    }
    m = read;
    return true;
}

bool read_matrix(const cv::FileNode& node, int rows, int cols, cv::Mat_<double>& m)
{
    cv::Mat_<double> read;
    if (!read_matrix(node, read) || read.rows != rows || read.cols != cols) return false;
    m = read;
    return true;
}

bool read_vector3(const cv::FileNode& node, cv::Mat_<double>& m)
{
    cv::Mat_<double> read;
    if (!read_matrix(node, read) || read.total() != 3) return false;
    m = read.reshape(1, 3);
    return true;
}

bool all_finite(std::initializer_list<cv::Mat_<double>> matrices)
{
    for (const cv::Mat_<double>& m : matrices)
        for (const double value : m)
            if (!std::isfinite(value)) return false;
    return true;
}

bool is_regular(const cv::Mat_<double>& m)
{
    // Rows of unit length, since a projection mixes pixels and directions; then the determinant is the volume
    // that is left between its rows. 1e-10 is far below a lens of 1 px focal length seen 30 000 px off axis.
    cv::Matx33d rows;
    for (int r = 0; r < 3; ++r) {
        const cv::Vec3d row(m(r, 0), m(r, 1), m(r, 2));
        const double length = cv::norm(row);
        if (!(length > 0.0) || !std::isfinite(length)) return false;
        for (int c = 0; c < 3; ++c)
            rows(r, c) = row[c] / length;
    }
    return std::abs(cv::determinant(rows)) > 1e-10;
}

} // namespace camera_file
} // namespace vexo
