#include "sim/calibration.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <opencv2/imgcodecs.hpp>

#include <algorithm>

using namespace vexo::sim;

namespace {

CalibrationOptions ideal(int width, int height)
{
    CalibrationOptions options;
    options.rig.image_size = { width, height };
    options.rig.noise = 0;
    options.blur = 0;
    options.gradient = 1;
    options.views = 4;
    return options;
}

/// Centre of the darkness within 6 mm of a marker's centre, weighted by grey: exact for an area-sampled disc.
cv::Vec2d dark_centre(const cv::Mat_<uchar>& photo, const Camera& camera, const BoardPose& pose, cv::Point2d marker)
{
    const auto at = [&](double x, double y) { return camera.project(pose * cv::Vec3d(marker.x + x, marker.y + y, 0)); };
    const cv::Vec2d middle = at(0, 0), dx = at(1, 0) - middle, dy = at(0, 1) - middle; // px a mm
    const cv::Matx22d board_from_pixel = cv::Matx22d(dx[0], dy[0], dx[1], dy[1]).inv();
    std::vector<cv::Point> inside;
    double paper = 0;
    for (int y = cvRound(middle[1]) - 30; y <= cvRound(middle[1]) + 30; ++y)
        for (int x = cvRound(middle[0]) - 30; x <= cvRound(middle[0]) + 30; ++x) {
            if (cv::norm(board_from_pixel * (cv::Vec2d(x, y) - middle)) > 6) continue; // half-way to its neighbours
            inside.emplace_back(x, y);
            paper = std::max(paper, static_cast<double>(photo(y, x)));
        }
    double sum = 0;
    cv::Vec2d centre;
    for (const cv::Point& p : inside) {
        sum += paper - photo(p);
        centre += (paper - photo(p)) * cv::Vec2d(p.x, p.y);
    }
    return centre * (1 / sum);
}

/// Centre of a circle's image. The pixels of a disc are those of many concentric rings, whose images' centres
/// differ: the area is integrated here ring by ring, through the camera alone.
cv::Vec2d projected_area_centre(const Camera& camera, const BoardPose& pose, cv::Point2d centre, double radius)
{
    constexpr int rings = 20, sectors = 64;
    constexpr double h = 1e-3; // mm
    double area = 0;
    cv::Vec2d moment;
    for (int i = 0; i < rings; ++i)
        for (int k = 0; k < sectors; ++k) {
            const double r = radius * (i + 0.5) / rings, a = 2 * CV_PI * k / sectors;
            const cv::Vec3d on_board(centre.x + r * std::cos(a), centre.y + r * std::sin(a), 0);
            const cv::Vec2d at = camera.project(pose * on_board);
            const cv::Vec2d dx = camera.project(pose * (on_board + cv::Vec3d(h, 0, 0))) - at;
            const cv::Vec2d dy = camera.project(pose * (on_board + cv::Vec3d(0, h, 0))) - at;
            const double share = r * std::abs(dx[0] * dy[1] - dx[1] * dy[0]);
            area += share;
            moment += share * at;
        }
    return moment * (1 / area);
}

} // namespace

TEST(SimCalibration, MarkersLieWhereTheCameraProjectsThem)
{
    const CalibrationOptions options = ideal(1280, 1024);
    const Rig rig = make_rig(options.rig);
    const std::vector<BoardPose> poses = choose_poses(rig, options);
    for (int c = 0; c < 2; ++c) {
        const Camera& camera = rig.cameras[static_cast<std::size_t>(c)];
        const cv::Mat_<uchar> photo = BoardPhotographer(rig, c, options).photo(poses[2], 2);
        double worst = 0;
        for (const vexo::BoardMarker& marker : board_markers(options.board)) {
            if (marker.ring) continue;
            const cv::Vec2d expected
                = projected_area_centre(camera, poses[2], marker.centre_mm, 0.5 * options.board.diameter_mm);
            const cv::Vec2d middle = camera.project(poses[2] * cv::Vec3d(marker.centre_mm.x, marker.centre_mm.y, 0));
            ASSERT_LT(cv::norm(expected - middle), 0.1); // px; the bias of a tilted disc of 13 px radius
            worst = std::max(worst, cv::norm(dark_centre(photo, camera, poses[2], marker.centre_mm) - expected));
        }
        // About 80 pixels on the rim, each off by up to 1/128 of its area and half a grey level of 190 all over.
        EXPECT_LT(worst, 0.02);
    }
}

TEST(SimCalibration, EveryPoseShowsTheWholeBoardToBothCamerasAtManyDistancesAndTilts)
{
    CalibrationOptions options;
    for (const std::uint64_t seed : { 1U, 2U, 3U }) {
        options.rig.seed = seed;
        const Rig rig = make_rig(options.rig);
        const std::vector<BoardPose> poses = choose_poses(rig, options);
        ASSERT_EQ(poses.size(), 16U);
        double nearest = 1e9, farthest = 0;
        for (const BoardPose& pose : poses) {
            EXPECT_NEAR(cv::determinant(pose.R), 1, 1e-12);
            EXPECT_LT(pose.R(2, 2), -0.70); // its front, within 45 degrees
            nearest = std::min(nearest, pose.T[2]);
            farthest = std::max(farthest, pose.T[2]);
            for (const vexo::BoardMarker& marker : board_markers(options.board))
                for (const Camera& camera : rig.cameras)
                    ASSERT_TRUE(camera.sees(pose * cv::Vec3d(marker.centre_mm.x, marker.centre_mm.y, 0)));
        }
        EXPECT_GT(farthest, 1.3 * nearest);
    }
    options.board.pitch_mm = 2000;
    options.board.diameter_mm = 1600;
    EXPECT_THROW(choose_poses(make_rig({}), options), std::invalid_argument) << "too large for any distance";
    options.views = 0;
    EXPECT_NE(why_invalid(options), nullptr);
}

TEST(SimCalibration, BytesDependOnTheSeedAndNotOnTheThreads)
{
    CalibrationOptions options;
    options.rig.image_size = { 320, 256 };
    options.views = 2;
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const Files one = make_calibration(options);
    omp_set_num_threads(2);
    EXPECT_EQ(one, make_calibration(options));
    omp_set_num_threads(threads);
    ASSERT_EQ(one.size(), 5U);
    EXPECT_EQ(one[4].first, "truth.json");
    options.rig.seed = 2;
    EXPECT_NE(one[0].second, make_calibration(options)[0].second);
}
