#include "host/files/ply.h"

#include "base/failure.h"
#include "base/whole_file.h"

#include <algorithm>
#include <charconv>
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
        if (in_vertex && header.stride > 0) return false; // twice
        if (in_vertex) header.vertices = count;
        if (!in_vertex && count > 0 && header.stride == 0) header.vertices_first = false;
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
        if (p.name == name && (p.type == "float" || p.type == "float32" || p.bytes == sizeof(double))) return &p;
    return nullptr;
}

float value_at(const char* vertex, const PlyHeader::Property& property)
{
    float single = 0.0F; // x86-64 is little-endian
    double whole = 0.0;
    if (property.bytes == sizeof single) std::memcpy(&single, vertex + property.offset, sizeof single);
    if (property.bytes == sizeof whole) std::memcpy(&whole, vertex + property.offset, sizeof whole);
    return property.bytes == sizeof whole ? static_cast<float>(whole) : single;
}

/// The properties of a point, and where they go.
struct Wanted {
    const PlyHeader::Property *x, *y, *z, *sigma;

    void put(std::size_t i, float vx, float vy, float vz, float vs, PlyCloud& cloud) const
    {
        cloud.points[i] = { vx, vy, vz };
        if (sigma != nullptr) cloud.sigma[i] = vs;
    }
};

void read_binary(const std::string& bytes, const PlyHeader& header, const Wanted& of, PlyCloud& cloud)
{
    for (std::size_t i = 0; i < cloud.points.size(); ++i) {
        const char* vertex = bytes.data() + header.body + i * header.stride;
        const float sigma = of.sigma != nullptr ? value_at(vertex, *of.sigma) : 0.0F;
        of.put(i, value_at(vertex, *of.x), value_at(vertex, *of.y), value_at(vertex, *of.z), sigma, cloud);
    }
}

/// Numbers with blanks or line ends between them, a vertex after the other.
void read_text(
    const std::string& bytes, const PlyHeader& header, const Wanted& of, const std::string& path, PlyCloud& cloud)
{
    const char *at = bytes.data() + header.body, *const end = bytes.data() + bytes.size();
    std::vector<float> values(header.properties.size());
    const auto value_of = [&](const PlyHeader::Property* p) {
        return p == nullptr ? 0.0F : values[static_cast<std::size_t>(p - header.properties.data())];
    };
    for (std::size_t i = 0; i < cloud.points.size(); ++i) {
        for (float& value : values) {
            at = std::find_if(at, end, [](unsigned char c) { return c > ' '; });
            double number = 0.0;
            const auto read = std::from_chars(at, end, number);
            if (read.ec == std::errc::invalid_argument)
                throw Failure(path + ": vertex " + std::to_string(i) + " is damaged or missing; copy the file again");
            value = read.ec == std::errc() ? static_cast<float>(number) : std::nanf(""); // 1e999
            at = read.ptr;
        }
        of.put(i, value_of(of.x), value_of(of.y), value_of(of.z), value_of(of.sigma), cloud);
    }
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
    const Wanted of { find(header, "x"), find(header, "y"), find(header, "z"), find(header, "sigma") };
    const bool text = header.format == "ascii";
    if ((!text && header.format != "binary_little_endian") || !of.x || !of.y || !of.z || !header.vertices_first)
        throw Failure(path
            + ": only PLY in text or binary little-endian form with float or double x y z, vertices first, can be "
              "read; "
              "save it as one");
    const std::size_t least = text ? 2 * header.properties.size() - 1 : header.stride; // bytes of a vertex
    if (header.vertices > (bytes.size() - header.body) / least + (text ? 1 : 0))
        throw Failure(path + ": the file is cut short; its header promises more points than it holds");

    PlyCloud cloud { std::vector<cv::Point3f>(header.vertices), std::vector<float>(of.sigma ? header.vertices : 0) };
    if (text)
        read_text(bytes, header, of, path, cloud);
    else
        read_binary(bytes, header, of, cloud);
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
