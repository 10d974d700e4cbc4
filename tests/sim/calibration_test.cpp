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
cv::Vec2d dark_centre(const cv::Mat_<uchar>& photo, const Camera& camera, const BoardPose& pose, cv::Vec3d marker)
{
    const auto at = [&](double x, double y) { return camera.project(pose * (marker + cv::Vec3d(x, y, 0))); };
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

} // namespace

TEST(SimCalibration, MarkersOfFlatAndOfBentBoardsLieWhereTheCameraProjectsThem)
{
    CalibrationOptions options = ideal(1280, 1024);
    const Rig rig = make_rig(options.rig);
    const cv::Matx33d facing(1, 0, 0, 0, -1, 0, 0, 0, -1);
    // From the front: there a disc's image has its centre where the disc has it, but for the distortion, 0.005 px, and
    // the 2.5 degrees by which the rim of the bent boards is tilted, 0.004 px.
    for (const BoardBend& bend : { BoardBend { 0, 0 }, BoardBend { 2.5, 0.02 }, BoardBend { -2.5, -0.02 } })
        for (int c = 0; c < 2; ++c) {
            options.bend = bend;
            const Camera& camera = rig.cameras[static_cast<std::size_t>(c)];
            const BoardPose pose { camera.R.t() * facing, camera.R.t() * (cv::Vec3d(0, 0, 620) - camera.T) };
            const cv::Mat_<uchar> photo = BoardPhotographer(rig, c, options).photo(pose, 2);
            double worst = 0;
            for (const auto& marker : board_markers(options.board)) {
                if (marker.ring) continue;
                const double x = marker.centre_mm.x, y = marker.centre_mm.y * (1 + bend.stretch_y);
                const double r = std::hypot(x - 12, y) / 108; // the middle is one pitch beside O, its edge nine farther
                const cv::Vec3d at(x, y, -bend.bow_mm * r * r);
                worst = std::max(worst, cv::norm(dark_centre(photo, camera, pose, at) - camera.project(pose * at)));
            }
            // About 80 pixels on the rim, each off by up to 1/128 of its area and half a grey level of 190 all over.
            EXPECT_LT(worst, 0.02) << bend.bow_mm;
        }
}

TEST(SimCalibration, AlmostFlatBoardsLookAsFlatOnesDo)
{
    CalibrationOptions options = ideal(320, 256);
    options.blur = 0.7;
    const Rig rig = make_rig(options.rig);
    for (const BoardPose& pose : choose_poses(rig, options)) {
        CalibrationOptions bent = options;
        bent.bend = { 1e-9, -1e-12 };
        const cv::Mat flat = BoardPhotographer(rig, 1, options).photo(pose, 0);
        EXPECT_LE(cv::norm(flat, BoardPhotographer(rig, 1, bent).photo(pose, 0), cv::NORM_INF), 1);
        bent.bend = { 5, 0.05 };
        EXPECT_GT(cv::norm(flat, BoardPhotographer(rig, 1, bent).photo(pose, 0), cv::NORM_INF), 50);
    }
    options.bend.bow_mm = 5.1;
    EXPECT_NE(why_invalid(options), nullptr);
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
