#include "host/clouds/nearest.h"

#include <nanoflann.hpp>

namespace vexo {

namespace {

/// What the tree asks of the points.
struct Points {
    const std::vector<cv::Vec3d>& all;

    std::size_t kdtree_get_point_count() const { return all.size(); }
    double kdtree_get_pt(std::size_t i, std::size_t axis) const { return all[i][static_cast<int>(axis)]; }
    template <class Box> bool kdtree_get_bbox(Box& /*box*/) const { return false; }
};

using Index = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<double, Points>, Points, 3, std::size_t>;

} // namespace

struct NearestPoints::Tree {
    explicit Tree(const std::vector<cv::Vec3d>& all)
        : points { all }
        , index(3, points, nanoflann::KDTreeSingleIndexAdaptorParams(20))
    {
    }
    Points points;
    Index index;
};

NearestPoints::NearestPoints(const std::vector<cv::Vec3d>& points)
    : _tree(std::make_unique<Tree>(points))
{
}

NearestPoints::~NearestPoints() = default;

std::vector<std::size_t> NearestPoints::nearest(const cv::Vec3d& place, std::size_t count) const
{
    std::vector<std::size_t> numbers(count);
    std::vector<double> squares(count);
    numbers.resize(_tree->index.knnSearch(place.val, count, numbers.data(), squares.data()));
    return numbers;
}

std::size_t NearestPoints::nearest(const cv::Vec3d& place) const
{
    std::size_t number = 0;
    double square = 0.0;
    _tree->index.knnSearch(place.val, 1, &number, &square);
    return number;
}

} // namespace vexo
