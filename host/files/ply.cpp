#include "host/files/ply.h"

#include "base/failure.h"
#include "base/whole_file.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

namespace vexo {

namespace {

constexpr std::size_t max_ply_bytes = std::size_t { 1 } << 31;

constexpr std::size_t max_header_bytes = 65536;

std::size_t bytes_of(const std::string& type)
{
    if (type == "char" || type == "uchar" || type == "int8" || type == "uint8") return 1;
    if (type == "short" || type == "ushort" || type == "int16" || type == "uint16") return 2;
    if (type == "int" || type == "uint" || type == "float" || type == "int32" || type == "uint32" || type == "float32")
        return 4;
    return type == "double" || type == "float64" ? 8 : 0;
}

/// One line of the header; false when it makes no sense. `in_vertex` says whose properties come now.
bool take_line(const std::string& line, PlyHeader& header, bool& in_vertex)
{
    std::istringstream words(line);
    std::string word, type, name;
    words >> word;
    if (word == "format") return static_cast<bool>(words >> header.format);
    if (word == "comment" || word == "obj_info") {
        header.comments.push_back(line.substr(std::min(line.size(), word.size() + 1)));
        return true;
    }
    if (word == "element") {
        std::size_t count = 0;
        if (!(words >> name >> count)) return false;
        in_vertex = name == "vertex";
        if (in_vertex) header.vertices = count;
        return true;
    }
    if (word != "property" || !(words >> type)) return false;
    if (!in_vertex) return true;
    const std::size_t bytes = bytes_of(type);
    if (bytes == 0 || !(words >> name)) return false;
    header.properties.push_back({ name, type, header.stride, bytes });
    header.stride += bytes;
    return true;
}

const PlyHeader::Property* find(const PlyHeader& header, const std::string& name)
{
    for (const PlyHeader::Property& p : header.properties)
        if (p.name == name && (p.type == "float" || p.type == "float32")) return &p;
    return nullptr;
}

} // namespace

PlyHeader parse_ply_header(const std::string& bytes, const std::string& path)
{
    PlyHeader header;
    bool in_vertex = false;
    std::size_t begin = 0;
    for (std::size_t number = 0; begin < std::min(bytes.size(), max_header_bytes); ++number) {
        const std::size_t end = bytes.find('\n', begin);
        if (end == std::string::npos || end - begin > 4096) break;
        std::string line = bytes.substr(begin, end - begin);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        begin = end + 1;
        if (number == 0 && line != "ply") break;
        if (line == "end_header") {
            header.body = begin;
            break;
        }
        if (number > 0 && !take_line(line, header, in_vertex)) break;
    }
    if (header.body == 0) throw Failure(path + ": is not a PLY file, or its header is damaged");
    return header;
}

PlyCloud read_ply_cloud(const std::string& path)
{
    const std::string bytes = read_bytes(path, max_ply_bytes);
    const PlyHeader header = parse_ply_header(bytes, path);
    const PlyHeader::Property* const axes[3] = { find(header, "x"), find(header, "y"), find(header, "z") };
    const PlyHeader::Property* const sigma = find(header, "sigma");
    if (header.format != "binary_little_endian" || !axes[0] || !axes[1] || !axes[2])
        throw Failure(path + ": only binary little-endian PLY with float x y z can be read");
    if (header.vertices > (bytes.size() - header.body) / header.stride)
        throw Failure(path + ": the file is cut short; its header promises more points than it holds");

    PlyCloud cloud { std::vector<cv::Point3f>(header.vertices), std::vector<float>(sigma ? header.vertices : 0) };
    for (std::size_t i = 0; i < cloud.points.size(); ++i) {
        const char* vertex = bytes.data() + header.body + i * header.stride;
        float xyz[3];
        for (int k = 0; k < 3; ++k)
            std::memcpy(&xyz[k], vertex + axes[k]->offset, sizeof(float));
        cloud.points[i] = { xyz[0], xyz[1], xyz[2] };
        if (sigma) std::memcpy(&cloud.sigma[i], vertex + sigma->offset, sizeof(float));
    }
    return cloud;
}

std::vector<cv::Point3f> read_ply(const std::string& path)
{
    return read_ply_cloud(path).points;
}

std::vector<unsigned char> make_ply(
    const std::vector<cv::Point3f>& points, const cv::Mat& texture, const std::string& comment, const cv::Mat& sigma)
{
    const auto measured = [](const cv::Point3f& p) { return !std::isnan(p.z); };
    const auto count = std::count_if(points.begin(), points.end(), measured);
    const std::string header = "ply\nformat binary_little_endian 1.0\ncomment " + comment + "\nelement vertex "
        + std::to_string(count)
        + "\nproperty float x\nproperty float y\nproperty float z\n"
          "property uchar red\nproperty uchar green\nproperty uchar blue\n"
        + (sigma.empty() ? "" : "property float sigma\n") + "end_header\n";

    constexpr std::size_t of_sigma = 15;
    const std::size_t stride = of_sigma + (sigma.empty() ? 0 : sizeof(float));
    std::vector<unsigned char> bytes(header.size() + static_cast<std::size_t>(count) * stride);
    std::memcpy(bytes.data(), header.data(), header.size());
    unsigned char* out = bytes.data() + header.size();
    const auto width = static_cast<std::size_t>(texture.cols);
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (!measured(points[i])) continue;
        const int y = static_cast<int>(i / width), x = static_cast<int>(i % width);
        std::memcpy(out, &points[i], 3 * sizeof(float)); // x86-64 is little-endian
        std::memset(out + 12, texture.at<uchar>(y, x), 3);
        if (!sigma.empty()) std::memcpy(out + of_sigma, sigma.ptr<float>(y) + x, sizeof(float));
        out += stride;
    }
    return bytes;
}

} // namespace vexo
