#include "host/clouds/mesh_of_views.h"

#include "base/parallel.h"
#include "host/clouds/mesh.h"

#include <algorithm>
#include <limits>

namespace vexo {

namespace {

constexpr std::int32_t none = -1;

/// One view's part of the mesh.
struct Part {
    GridMesh grid;                   ///< over kept points, and over doubled ones that a later view stands in for
    cv::Mat_<std::int32_t> numbers;  ///< of the vertices at kept pixels, among the view's own
    cv::Mat_<std::int32_t> borders;  ///< of the doubled pixels: which of FusedViews::borders
    std::vector<cv::Point> vertices; ///< pixels
    std::uint32_t first = 0;         ///< number of its first vertex among all
};

Part part_of(const std::vector<View>& views, const FusedViews& fused, std::size_t i)
{
    const View& view = views[i];
    const cv::Size size = view.points.size();
    Part part { {}, { size, none }, { size, none }, {} };
    cv::Mat_<float> depth(size, std::numeric_limits<float>::quiet_NaN());
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            if (fused.kept(i, { x, y })) depth(y, x) = view.points(y, x)[2];
    const auto& borders = fused.borders[i];
    for (std::size_t k = 0; k < borders.size(); ++k) {
        if (borders[k].view < i) continue;
        depth(borders[k].own) = view.points(borders[k].own)[2];
        part.borders(borders[k].own) = static_cast<std::int32_t>(k);
    }
    part.grid = mesh_of(depth, view.sigma, view.scale);
    for (const cv::Point& p : part.grid.pixels)
        if (part.borders(p) == none) {
            part.numbers(p) = static_cast<std::int32_t>(part.vertices.size());
            part.vertices.push_back(p);
        }
    return part;
}

class Joiner {
public:
    Joiner(const std::vector<Part>& parts, const FusedViews& fused)
        : _parts(parts)
        , _fused(fused)
    {
    }

    std::vector<std::array<std::uint32_t, 3>> triangles_of(std::size_t view) const
    {
        std::vector<std::array<std::uint32_t, 3>> all;
        const GridMesh& grid = _parts[view].grid;
        all.reserve(grid.triangles.size());
        for (const auto& corners : grid.triangles) {
            std::array<std::int64_t, 3> numbers {};
            int own = 0;
            for (std::size_t k = 0; k < corners.size(); ++k) {
                const cv::Point& p = grid.pixels[corners[k]];
                own += _parts[view].borders(p) == none ? 1 : 0;
                numbers[k] = _vertex(view, p);
            }
            // Without an own corner it lies on the other view's side.
            if (own == 0 || std::find(numbers.begin(), numbers.end(), none) != numbers.end()) continue;
            if (numbers[0] == numbers[1] || numbers[1] == numbers[2] || numbers[2] == numbers[0]) continue;
            all.push_back({ static_cast<std::uint32_t>(numbers[0]), static_cast<std::uint32_t>(numbers[1]),
                static_cast<std::uint32_t>(numbers[2]) });
        }
        return all;
    }

private:
    /// Number of the vertex at a pixel, or of that which stands in for it; `none` where that one has no triangle.
    std::int64_t _vertex(std::size_t view, cv::Point p) const
    {
        const std::int32_t border = _parts[view].borders(p);
        if (border != none) {
            const FusedViews::Border& b = _fused.borders[view][static_cast<std::size_t>(border)];
            view = b.view;
            p = b.kept;
        }
        const std::int32_t number = _parts[view].numbers(p);
        return number == none ? none : static_cast<std::int64_t>(_parts[view].first) + number;
    }

    const std::vector<Part>& _parts;
    const FusedViews& _fused;
};

} // namespace

ViewsMesh mesh_of_views(const std::vector<View>& views, const FusedViews& fused)
{
    std::vector<Part> parts(views.size());
    in_parallel(views.size(), [&](std::size_t i) { parts[i] = part_of(views, fused, i); });
    ViewsMesh mesh;
    std::uint32_t first = 0;
    for (Part& part : parts) {
        part.first = first;
        first += static_cast<std::uint32_t>(part.vertices.size());
    }
    std::vector<std::vector<std::array<std::uint32_t, 3>>> triangles(views.size());
    const Joiner joiner(parts, fused);
    in_parallel(views.size(), [&](std::size_t i) { triangles[i] = joiner.triangles_of(i); });
    for (std::size_t i = 0; i < views.size(); ++i) {
        mesh.pixels.push_back(std::move(parts[i].vertices));
        mesh.triangles.insert(mesh.triangles.end(), triangles[i].begin(), triangles[i].end());
    }
    return mesh;
}

} // namespace vexo
