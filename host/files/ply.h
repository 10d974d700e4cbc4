#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace vexo {

/// What a PLY file's header says of its points.
struct PlyHeader {
    struct Property {
        std::string name;
        std::string type;
        std::size_t offset; ///< bytes from the start of a vertex
        std::size_t bytes;
    };
    std::string format; ///< "binary_little_endian", "binary_big_endian" or "ascii"
    std::vector<std::string> comments;
    std::size_t vertices = 0;
    std::size_t stride = 0; ///< bytes of one vertex
    std::size_t body = 0;   ///< where the elements begin
    bool vertices_first = true;
    std::vector<Property> properties;
};

/// Reads a header; throws Failure that names `path`.
PlyHeader parse_ply_header(const std::string& bytes, const std::string& path);

/// The points of a file.
struct PlyCloud {
    std::vector<cv::Point3f> points;
    std::vector<float> sigma; ///< of each, the property `sigma`; empty: the file has none
};

/// Reads the points of a PLY in text or binary little-endian form, float or double coordinates, of which the vertices
/// are the first element; what comes after them is passed over. Coordinates may be NaN. Throws Failure that names
/// `path`.
PlyCloud read_ply_cloud(const std::string& path);

/// Its x y z alone.
std::vector<cv::Point3f> read_ply(const std::string& path);

/// Binary little-endian PLY of the points that are not NaN: x y z as float, the grey as red green blue, and where it is
/// known the float `sigma`, NaN for points that have none.
/// @param texture  8-bit grey, as many pixels as points
/// @param sigma    CV_32F, as many pixels; empty: not known
std::vector<unsigned char> make_ply(const std::vector<cv::Point3f>& points, const cv::Mat& texture,
    const std::string& comment, const cv::Mat& sigma = cv::Mat());

} // namespace vexo
