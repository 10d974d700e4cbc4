#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

/// Rigid motions as 4 x 4 matrices, and as lines of a text.
namespace vexo {
namespace sim {

cv::Matx44d pose_of(const cv::Matx33d& R, const cv::Vec3d& T);

/// Of a rigid motion.
cv::Matx44d inverse(const cv::Matx44d& pose);

struct NamedPose {
    std::string picture; ///< the picture or the folder that was taken there
    cv::Matx44d pose;
};

/// A first line with the names of the columns, and a line a pose: picture, place in mm and unit quaternion.
std::string poses_text(const std::vector<NamedPose>& poses);

} // namespace sim
} // namespace vexo
