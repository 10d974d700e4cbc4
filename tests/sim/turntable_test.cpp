#include "sim/capture.h"
#include "sim/turntable.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

namespace vexo::sim {

namespace {
cv::Vec3d vector_of(const cv::FileNode& node)
{
    return { static_cast<double>(node[0]), static_cast<double>(node[1]), static_cast<double>(node[2]) };
}
} // namespace

/// What a merging program is told of the axis, found a second way: by turning the first view's scene about it.
TEST(Turntable, TurnsTheSceneAboutTheAxisThatItsFileNames)
{
    constexpr std::size_t views = 5;
    const RigOptions options;
    const cv::Matx44d first = cam0_from_scene(make_rig(on_turntable(options, 0, views)));
    const cv::FileStorage file(
        turntable_yaml(make_rig(options), 360.0 / views), cv::FileStorage::READ | cv::FileStorage::MEMORY);
    const cv::Vec3d point = vector_of(file["axis_point"]), axis = vector_of(file["axis_direction"]);
    EXPECT_NEAR(cv::norm(axis), 1, 1e-12);
    for (std::size_t i = 0; i < views; ++i) {
        const double angle = static_cast<double>(i) * static_cast<double>(file["step_deg"]) * CV_PI / 180;
        cv::Matx33d turn;
        cv::Rodrigues(axis * angle, turn);
        const cv::Matx44d seen = cam0_from_scene(make_rig(on_turntable(options, i, views)));
        for (const cv::Vec4d& corner : { cv::Vec4d(50, -80, 620, 1), cv::Vec4d(-70, 90, 560, 1) }) {
            const cv::Vec4d before = first * corner, after = seen * corner;
            const cv::Vec3d expected = turn * (cv::Vec3d(before.val) - point) + point;
            EXPECT_LT(cv::norm(cv::Vec3d(after.val) - expected), 1e-9) << i;
        }
    }
    EXPECT_NE(on_turntable(options, 1, views).seed, on_turntable(options, 2, views).seed); // else noise repeats
}

} // namespace vexo::sim
