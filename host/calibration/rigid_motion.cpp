#include "host/calibration/rigid_motion.h"

namespace vexo {

std::vector<cv::Vec3d> moved_onto(const std::vector<cv::Vec3d>& points, const std::vector<cv::Vec3d>& others)
{
    cv::Vec3d middle, other_middle;
    const auto n = static_cast<double>(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        middle += points[i] / n;
        other_middle += others[i] / n;
    }
    cv::Matx33d covariance = cv::Matx33d::zeros();
    for (std::size_t i = 0; i < points.size(); ++i)
        covariance += (others[i] - other_middle) * (points[i] - middle).t();
    cv::Matx33d U, Vt;
    cv::Vec3d w;
    cv::SVD::compute(covariance, w, U, Vt);
    const cv::Matx33d flip = cv::Matx33d::diag({ 1, 1, cv::determinant(U * Vt) });
    const cv::Matx33d R = U * flip * Vt;
    std::vector<cv::Vec3d> moved;
    moved.reserve(points.size());
    for (const cv::Vec3d& p : points)
        moved.push_back(R * (p - middle) + other_middle);
    return moved;
}

} // namespace vexo
