#pragma once

#include <array>
#include <functional>
#include <vector>

#include "sim/pattern.h"
#include "sim/rig.h"
#include "sim/scene.h"

namespace vexo {
namespace sim {

/// What part of a camera pixel gets its light from: a patch of a surface and its place in the projector's image.
struct Sample {
    double column = 0; ///< projector column, edge coordinates: column i covers [i, i + 1)
    float width = 1;   ///< size of the patch in projector columns
    float lit = 0;     ///< grey levels with the projector fully lit, without ambient light; 0 in shadow
    float ambient = 0; ///< grey levels with the projector dark
};

/// What one camera sees, ready to be rendered under any pattern. Rays are cast once; a pixel whose neighbours see
/// something else (another surface, a depth step, a shadow's edge) is made of 4 x 4 samples, all others of one.
class View {
public:
    View(const Scene& scene, const Rig& rig, int camera);

    const cv::Mat_<float>& depth() const { return _depth; }   ///< mm along the camera's z axis; NaN: nothing there
    const cv::Mat_<uchar>& lit() const { return _lit; }       ///< 255 where the projector's light arrives
    const cv::Mat_<uchar>& shared() const { return _shared; } ///< 255 where the other camera sees the point, too
    const Sample& sample(int y, int x) const { return _samples[_index(y, x)]; } ///< at the pixel's centre

    /// The picture of this camera under a projected row, 8 bits.
    /// @param frame  number of the frame: each has noise of its own, the same whatever the number of threads
    cv::Mat_<uchar> picture(const ProjectedRow& row, int frame) const;

private:
    static constexpr int fine = 4; ///< samples a pixel at edges, along x and along y
    struct Point;                  ///< surface point at a pixel's centre, while the view is made

    std::size_t _index(int y, int x) const
    {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(_depth.cols) + static_cast<std::size_t>(x);
    }
    Point _trace(const Scene& scene, const cv::Vec2d& pixel, double pixel_part) const noexcept;
    double _mean_albedo(const Scene& scene, const PixelRay& ray, const Hit& hit, double pixel_part) const noexcept;
    bool _is_lit(const Scene& scene, const cv::Vec3d& point, const cv::Vec3d& normal) const noexcept;
    bool _is_shared(const Scene& scene, const cv::Vec3d& point, const cv::Vec3d& normal) const noexcept;
    void _trace_row(const Scene& scene, int y, Point* points) noexcept;
    bool _differ(const Point& a, const Point& b) const noexcept;
    void _find_edges(const std::vector<Point>& points);
    void _trace_edge(const Scene& scene, std::size_t edge) noexcept;
    void _picture_row(const ProjectedRow& row, std::uint64_t key, int y, uchar* out) const noexcept;
    double _light(const ProjectedRow& row, std::size_t pixel) const noexcept;

    const Rig* _rig;
    int _camera;
    cv::Mat_<float> _depth;
    cv::Mat_<uchar> _lit, _shared;
    std::vector<Sample> _samples;      ///< one a pixel
    std::vector<int> _edge_of_pixel;   ///< index into _edges, or -1
    std::vector<std::size_t> _edges;   ///< pixels that are made of fine x fine samples
    std::vector<Sample> _edge_samples; ///< fine x fine for each edge
};

/// The truth of a capture, in raw camera 0.
struct Truth {
    cv::Mat_<float> depth;   ///< mm, z in raw camera-0 axes of the surface point at each pixel's centre, NaN: nothing
    cv::Mat_<uchar> visible; ///< 255 where that point is seen by both cameras and lit by the projector
};

/// @param lit_columns  of the pattern; surface beyond them counts as unlit
Truth make_truth(const View& camera0, int lit_columns);

/// The pattern's rows as the rig's projector throws them.
std::vector<ProjectedRow> project(const Pattern& pattern, const RigOptions& options);

} // namespace sim
} // namespace vexo
