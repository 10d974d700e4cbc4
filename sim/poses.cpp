#include "sim/poses.h"

#include <iomanip>
#include <locale>
#include <sstream>

namespace vexo {
namespace sim {

namespace {
/// Unit quaternion x y z w of a rotation. Source: Shepperd, J. Guidance and Control 1 (1978) 223: the largest of four
/// squares first.
cv::Vec4d quaternion_of(const cv::Matx33d& R)
{
    const double trace = R(0, 0) + R(1, 1) + R(2, 2);
    const double squares[4] = { R(0, 0), R(1, 1), R(2, 2), trace };
    int most = 3;
    for (int i = 0; i < 3; ++i)
        if (squares[i] > squares[most]) most = i;
    cv::Vec4d q;
    if (most == 3) {
        q = { R(2, 1) - R(1, 2), R(0, 2) - R(2, 0), R(1, 0) - R(0, 1), 1 + trace };
    } else {
        const int j = (most + 1) % 3, k = (most + 2) % 3;
        q[most] = 1 + R(most, most) - R(j, j) - R(k, k);
        q[j] = R(j, most) + R(most, j);
        q[k] = R(k, most) + R(most, k);
        q[3] = R(k, j) - R(j, k);
    }
    return q * (1 / cv::norm(q));
}

} // namespace

cv::Matx44d pose_of(const cv::Matx33d& R, const cv::Vec3d& T)
{
    return { R(0, 0), R(0, 1), R(0, 2), T[0], R(1, 0), R(1, 1), R(1, 2), T[1], R(2, 0), R(2, 1), R(2, 2), T[2], 0, 0, 0,
        1 };
}

cv::Matx44d inverse(const cv::Matx44d& m)
{
    const cv::Matx33d R = m.get_minor<3, 3>(0, 0).t();
    return pose_of(R, -(R * cv::Vec3d(m(0, 3), m(1, 3), m(2, 3))));
}

std::string poses_text(const std::vector<NamedPose>& poses)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << "picture,x_mm,y_mm,z_mm,qx,qy,qz,qw\n" << std::fixed;
    for (const auto& [picture, pose] : poses) {
        text << picture << std::setprecision(4);
        for (int k = 0; k < 3; ++k)
            text << ',' << pose(k, 3);
        const cv::Vec4d q = quaternion_of(pose.get_minor<3, 3>(0, 0));
        text << std::setprecision(8);
        for (int k = 0; k < 4; ++k)
            text << ',' << q[k];
        text << '\n';
    }
    return text.str();
}

} // namespace sim
} // namespace vexo
