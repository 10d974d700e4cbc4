#include "host/files/shape.h"

#include "host/files/byte_file.h"

#include <algorithm>

namespace vexo {

namespace {

std::string comments(const Shape& shape, const std::string& before)
{
    std::string lines;
    for (const std::string& note : shape.notes)
        lines += before + note + "\n";
    return lines;
}

} // namespace

Bounds bounds_of(const std::vector<cv::Point3f>& points)
{
    Bounds bounds { cv::Vec3f(points.front()), cv::Vec3f(points.front()) };
    for (const cv::Point3f& p : points)
        for (int k = 0; k < 3; ++k) {
            bounds.low[k] = std::min(bounds.low[k], cv::Vec3f(p)[k]);
            bounds.high[k] = std::max(bounds.high[k], cv::Vec3f(p)[k]);
        }
    return bounds;
}

std::vector<cv::Point3f> in_metres_y_up(const Shape& shape)
{
    std::vector<cv::Point3f> points;
    points.reserve(shape.points.size());
    for (const cv::Point3f& p : shape.points)
        points.emplace_back(y_up(cv::Vec3f(cv::Vec3d(p.x, p.y, p.z) * (shape.in_mm / 1000.0))));
    return points;
}

std::vector<unsigned char> make_ply(const Shape& shape)
{
    ByteFile file(400 + shape.points.size() * 32 + shape.triangles.size() * 13);
    file.text("ply\nformat binary_little_endian 1.0\n" + comments(shape, "comment ") + "element vertex "
        + std::to_string(shape.points.size())
        + "\nproperty float x\nproperty float y\nproperty float z\n"
          "property float nx\nproperty float ny\nproperty float nz\n"
          "property uchar red\nproperty uchar green\nproperty uchar blue\n"
        + (shape.sigma.empty() ? "" : "property float sigma\n") + (shape.view.empty() ? "" : "property uchar view\n"));
    if (shape.is_mesh())
        file.text(
            "element face " + std::to_string(shape.triangles.size()) + "\nproperty list uchar int vertex_indices\n");
    file.text("end_header\n");
    for (std::size_t i = 0; i < shape.points.size(); ++i) {
        file.put(shape.points[i]);
        file.put(shape.normals[i]);
        file.put(cv::Vec3b::all(shape.grey[i]));
        if (!shape.sigma.empty()) file.put(shape.sigma[i]);
        if (!shape.view.empty()) file.put(shape.view[i]);
    }
    for (const auto& triangle : shape.triangles) {
        file.put(static_cast<unsigned char>(triangle.size()));
        file.put(triangle);
    }
    return file.take();
}

std::vector<unsigned char> make_stl(const Shape& shape)
{
    constexpr std::size_t header_bytes = 80; // by the format; it must not begin with "solid": that is the text form
    std::string header = comments(shape, "");
    std::replace(header.begin(), header.end(), '\n', ' ');
    header.resize(header_bytes, ' ');
    ByteFile file(header_bytes + 4 + shape.triangles.size() * 50);
    file.text(header);
    file.put(static_cast<std::uint32_t>(shape.triangles.size()));
    for (const auto& triangle : shape.triangles) {
        const cv::Point3f &a = shape.points[triangle[0]], &b = shape.points[triangle[1]],
                          &c = shape.points[triangle[2]];
        file.put(cv::normalize(cv::Vec3f((b - a).cross(c - a))));
        for (const cv::Point3f& corner : { a, b, c })
            file.put(corner);
        file.put(std::uint16_t { 0 });
    }
    return file.take();
}

std::vector<unsigned char> make_obj(const Shape& shape)
{
    ByteFile file(200 + shape.points.size() * 100 + shape.triangles.size() * 50);
    file.text(comments(shape, "# "));
    for (std::size_t i = 0; i < shape.points.size(); ++i) {
        file.text("v ");
        file.numbers(cv::Vec3f(shape.points[i]), ' ');
        file.numbers(cv::Vec3f::all(static_cast<float>(shape.grey[i]) / 255.0F), '\n');
        file.text("vn ");
        file.numbers(shape.normals[i], '\n');
    }
    const auto corner = [&file](std::size_t i, char next) { // point and normal, counted from 1
        file.number(i + 1, '/');
        file.text("/");
        file.number(i + 1, next);
    };
    for (const auto& triangle : shape.triangles) {
        file.text("f ");
        corner(triangle[0], ' ');
        corner(triangle[1], ' ');
        corner(triangle[2], '\n');
    }
    for (std::size_t i = 0; !shape.is_mesh() && i < shape.points.size(); ++i) {
        file.text("p ");
        file.number(i + 1, '\n');
    }
    return file.take();
}

std::vector<unsigned char> make_pcd(const Shape& shape)
{
    const bool sigma = !shape.sigma.empty();
    const std::string count = std::to_string(shape.points.size());
    ByteFile file(500 + shape.points.size() * 32);
    file.text(comments(shape, "# ") + "VERSION 0.7\nFIELDS x y z normal_x normal_y normal_z intensity"
        + (sigma ? " sigma" : "") + "\nSIZE 4 4 4 4 4 4 4" + (sigma ? " 4" : "") + "\nTYPE F F F F F F F"
        + (sigma ? " F" : "") + "\nCOUNT 1 1 1 1 1 1 1" + (sigma ? " 1" : "") + "\nWIDTH " + count
        + "\nHEIGHT 1\nVIEWPOINT 0 0 0 1 0 0 0\nPOINTS " + count + "\nDATA binary\n");
    for (std::size_t i = 0; i < shape.points.size(); ++i) {
        file.put(shape.points[i]);
        file.put(shape.normals[i]);
        file.put(static_cast<float>(shape.grey[i]));
        if (sigma) file.put(shape.sigma[i]);
    }
    return file.take();
}

std::vector<unsigned char> make_xyz(const Shape& shape)
{
    ByteFile file(shape.points.size() * 70);
    for (std::size_t i = 0; i < shape.points.size(); ++i) {
        file.numbers(cv::Vec3f(shape.points[i]), ' ');
        file.numbers(shape.normals[i], '\n');
    }
    return file.take();
}

} // namespace vexo
