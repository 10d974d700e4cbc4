#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <memory>
#include <vector>

namespace vexo {

/// A cloud in which the points near a place are found at once.
class NearestPoints {
public:
    /// @param points  finite; must outlive this
    explicit NearestPoints(const std::vector<cv::Vec3d>& points);
    ~NearestPoints();
    NearestPoints(const NearestPoints&) = delete;
    NearestPoints& operator=(const NearestPoints&) = delete;

    /// Numbers of the points nearest to a place, at most `count`, nearest first. Several threads may ask at once.
    std::vector<std::size_t> nearest(const cv::Vec3d& place, std::size_t count) const;
    std::size_t nearest(const cv::Vec3d& place) const;

private:
    struct Tree;
    std::unique_ptr<Tree> _tree;
};

} // namespace vexo
