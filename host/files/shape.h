#pragma once

#include <opencv2/core.hpp>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace vexo {

/// Points with what is known of each, and triangles between them: what the formats for other programs hold.
struct Shape {
    std::vector<cv::Point3f> points;
    std::vector<cv::Vec3f> normals;                      ///< of unit length, outwards, as many as points
    std::vector<unsigned char> grey;                     ///< as many
    std::vector<float> sigma;                            ///< of the depth, NaN: not known; as many, or none
    std::vector<unsigned char> view;                     ///< number of the view it is from; as many, or none
    std::vector<std::array<std::uint32_t, 3>> triangles; ///< counter-clockwise from outside; none: a cloud
    std::string unit;                                    ///< of all lengths, by its name
    double in_mm = 1.0;                                  ///< mm of one of it
    std::vector<std::string> notes;                      ///< lines that say what this is: program, frame, unit

    bool is_mesh() const { return !triangles.empty(); }
};

/// The corners of the smallest box that holds all points; there must be one.
struct Bounds {
    cv::Vec3f low, high;
};
Bounds bounds_of(const std::vector<cv::Point3f>& points);

/// A point, or a direction, in the axes of glTF: y up, z towards the viewer.
inline cv::Vec3f y_up(const cv::Vec3f& v)
{
    return { v[0], -v[1], -v[2] };
}

/// What y_up() makes of x, y, z.
constexpr const char* y_up_axes = "x, -y, -z";

/// The points of a GLB: metres, y up.
std::vector<cv::Point3f> in_metres_y_up(const Shape& shape);

/// Binary PLY, little-endian: x y z nx ny nz, the grey as red green blue, sigma, view, and faces.
std::vector<unsigned char> make_ply(const Shape& shape);

/// Binary STL: triangles with their normals; the unit is in its header. Nothing else has room.
std::vector<unsigned char> make_stl(const Shape& shape);

/// Binary glTF 2.0: triangles, or points; POSITION, NORMAL, the grey as COLOR_0, and _SIGMA in metres, -1 where it is
/// not known, as NaN is not allowed there. Source: Khronos Group, glTF 2.0.
std::vector<unsigned char> make_glb(const Shape& shape);

/// Wavefront OBJ: v with the grey as three colours from 0 to 1, vn, and f or p.
std::vector<unsigned char> make_obj(const Shape& shape);

/// Binary PCD 0.7: x y z normal_x normal_y normal_z intensity, and sigma; points alone.
std::vector<unsigned char> make_pcd(const Shape& shape);

/// Text: x y z nx ny nz in each line; points alone, and no comment.
std::vector<unsigned char> make_xyz(const Shape& shape);

} // namespace vexo
