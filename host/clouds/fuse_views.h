#pragma once

#include "host/clouds/view.h"

#include <cstddef>
#include <vector>

namespace vexo {

/// What becomes of a point of a view among the others.
enum class Fate : uchar {
    none,        ///< nothing was measured
    kept,        ///< the one point of its place
    doubled,     ///< another view sees the same place better
    contradicted ///< another view looks through it, or sees the surface elsewhere, and has more views on its side
};

struct FusedViews {
    std::vector<cv::Mat_<uchar>> fates; ///< of each view: Fate of its pixels

    /// A doubled point beside a kept one of its own view, and the kept point of another view that has its place.
    struct Border {
        cv::Point own;
        std::size_t view; ///< the other
        cv::Point kept;   ///< its pixel there
    };
    std::vector<std::vector<Border>> borders; ///< of each view, in the order of its pixels, one a pixel

    bool kept(std::size_t view, const cv::Point& p) const { return fates[view](p) == static_cast<uchar>(Fate::kept); }
    std::size_t count(std::size_t view, Fate fate) const;
};

/// Decides which points of views that lie on one another form one surface, without doubled layers. A place that several
/// views see is kept from that with the least sigma along the line of sight: this is a view from the front, as depth
/// errors grow to the side; along the normal alone a flat line of sight would look good. Sigma is averaged over 41 x 41
/// pixels, so that neighbours come from one view. Two points are of one place within 6 sigma of the distance along the
/// normal. A point that nothing supports and that lies farther off the surface which another view sees there
/// goes, and so does one in the free space before what another view sees: both where fewer other views see a surface
/// at it than at what speaks against it; where it is as many, that in the free space, or that which is seen worse.
FusedViews fuse_views(const std::vector<View>& views, const std::vector<cv::Affine3d>& common_from_view);

} // namespace vexo
