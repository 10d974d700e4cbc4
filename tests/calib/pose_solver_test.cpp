// The pose solver with the cameras that the photos were taken with.

#include "base/plain_yaml.h"
#include "board/PreProcessor.h"
#include "calib/board_series.h"
#include "calib/CalibBoardPoseSolver.h"
#include "camera/stereo_construction.h"
#include "support/folder.h"
#include "support/no_display.h"
#include "vexo/owned.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

namespace vexo {
namespace {

using board_series::Pose;
using board_series::series;
using board_series::set_up;
using Files = std::vector<std::string>;

/// The pair of the virtual rig in files.
class PoseSolver : public testing::Test {
protected:
    PoseSolver()
    {
        cv::FileStorage yaml = memory_yaml();
        for (std::size_t cam = 0; cam < 2; ++cam) {
            const sim::Camera& truth = board_series::camera(cam);
            DistortCamera camera(truth.size, cam == 0 ? "cam0" : "cam1");
            camera.K = cv::Mat_<double>(cv::Mat(truth.K, true));
            camera.D = cv::Mat_<double>(cv::Mat(truth.D, true).reshape(1, 1));
            camera.R = cv::Mat_<double>(cv::Mat(truth.R, true));
            camera.T = cv::Mat_<double>(cv::Mat(truth.T, true));
            camera.compose();
            EXPECT_TRUE(camera.save(&yaml));
        }
        EXPECT_TRUE(close_yaml(yaml, file));
    }

    /// @param turn  what rectification has turned the camera by
    void expect_pose(const double* pose, int cam, const cv::Matx33d& turn = cv::Matx33d::eye())
    {
        const Pose truth = board_series::camera_from_board(static_cast<std::size_t>(cam), series().poses[2]);
        const cv::Matx34d found(pose);
        EXPECT_LT(cv::norm(found.get_minor<3, 3>(0, 0), turn * truth.R, cv::NORM_INF), 3e-3);
        EXPECT_LT(cv::norm(found.col(3), cv::Matx31d((turn * truth.T).val), cv::NORM_INF), 1); // mm, at 600
    }

    Folder folder;
    const std::string file = folder / "cameras.yaml";
    CalibBoardPoseSolver solver;
    double pose[16] = { 7 };
};

TEST_F(PoseSolver, FindsThePoseOfEachCameraOfAFileAndNothingWithoutOne)
{
    for (int cam = 0; cam < 2; ++cam) {
        CalibBoardPoseSolver& own = *new CalibBoardPoseSolver;
        const cv::Mat& p = series().photo(cam, 2);
        pose[0] = 7;
        EXPECT_EQ(own.solve_pose(p.data, p.cols, p.rows, p.step, pose), -1);
        for (const Files& files : { Files {}, Files { folder / "none" } })
            EXPECT_FALSE(own.init_camera(files, 0, 0, 0));
        EXPECT_FALSE(own.init_camera({ file }, 2, 0, 0) || own.init_camera({ file }, -1, 0, 0));
        EXPECT_FALSE(own.init_camera({ file }, cam, 640, 480));
        ASSERT_TRUE(own.init_camera({ file }, cam, 1280, 1024));
        EXPECT_EQ(own.solve_pose(p.data, p.cols, p.rows, p.step, pose), -1); // no parameters yet
        PreProcParam even_block;
        even_block.binarize_mode = kAdaptiveMean;
        even_block.threshold = 4;
        ASSERT_TRUE(set_up(own, even_block));
        EXPECT_EQ(own.solve_pose(p.data, p.cols, p.rows, p.step, pose), 2);
        ASSERT_TRUE(set_up(own));
        EXPECT_EQ(own.solve_pose(p.data, 640, 512, p.step, pose), 1);
        EXPECT_EQ(own.solve_pose(p.data, p.cols, p.rows, p.step, nullptr), -1);
        EXPECT_EQ(own.solve_pose(folder / "none.png", true, pose), 2);
        EXPECT_EQ(own.ptr_debug_image(), nullptr);
        EXPECT_EQ(pose[0], 7);
        ASSERT_EQ(own.solve_pose(p.data, p.cols, p.rows, 0, pose), 0); // packed rows
        expect_pose(pose, cam);
        int width = 0, height = 0;
        own.get_size(&width, &height);
        EXPECT_EQ(cv::Size(width, height), p.size());
        ASSERT_NE(own.ptr_debug_image(), nullptr);
        ASSERT_TRUE(cv::imwrite(folder / "board.png", p));
        const cv::Mat before = cv::Mat(height, width, CV_8UC3, own.ptr_debug_image()).clone();
        ASSERT_EQ(own.solve_pose(folder / "board.png", true, pose), 0);
        own.save_debug_image(folder / "axes.png");
        NoDisplay no_display;
        own.show_debug_image();
        EXPECT_TRUE(no_display.said("No display for the window \"debug\"", 1));
        EXPECT_GT(cv::norm(cv::imread(folder / "axes.png"), before), 0);
        own.destroy();
    }
}

TEST_F(PoseSolver, TakesRectifiedPicturesForTheCamerasOfStereoFilesAndHmatSets)
{
    const std::string yaml = folder / "stereo.yaml";
    const Files set { folder / "h0", folder / "h1", folder / "h2" };
    const Owned<StereoCamera> stereo(create_StereoCamera({ file }, { 0, 0 }, -1, 0, {}, {}));
    cv::FileStorage storage = memory_yaml();
    ASSERT_TRUE(stereo && store_StereoCamera_to_Hmats(stereo.get(), set[0], set[1], set[2]));
    ASSERT_TRUE(stereo->save(&storage) && close_yaml(storage, yaml) && set_up(solver));
    cv::Mat rectified(1024, 1280, CV_8U);
    for (int cam = 0; cam < 2; ++cam) {
        ASSERT_TRUE(stereo->remap(series().photo(cam, 2).data, 0, rectified.data, 0, cam));
        const cv::Matx33d turn((cam == 0 ? stereo->cam0_R2 : stereo->cam1_R2).ptr<double>());
        for (const Files& files : { Files { yaml }, set }) {
            ASSERT_TRUE(solver.init_camera(files, cam, 1280, 1024)) << files.size();
            ASSERT_EQ(solver.solve_pose(rectified.data, 1280, 1024, 0, pose), 0) << files.size();
            expect_pose(pose, cam, turn);
        }
        EXPECT_TRUE(solver.init_camera({ yaml }, cam, 0, 0));
        EXPECT_FALSE(solver.init_camera(set, cam, 0, 0)); // the files do not say it
        EXPECT_FALSE(solver.init_camera(set, cam, 1280, 1023));
        EXPECT_FALSE(solver.init_camera({ set[0], set[1] }, cam, 1280, 1024));
        EXPECT_FALSE(solver.init_camera({ set[0], set[1], yaml }, cam, 1280, 1024));
    }
    for (const int selector : { -1, 2 })
        EXPECT_FALSE(solver.init_camera(set, selector, 1280, 1024) || solver.init_camera({ yaml }, selector, 0, 0));

    // A projection means the same at any scale; the pose is in the same axes.
    std::string bytes = content(set[1]);
    for (size_t i = 0; i < 12; ++i)
        bytes[8 * i + 7] = static_cast<char>(bytes[8 * i + 7] ^ '\x80'); // the signs of its doubles
    put(set[1], bytes);
    double same[16] = {};
    ASSERT_TRUE(solver.init_camera(set, 1, 1280, 1024));
    ASSERT_EQ(solver.solve_pose(rectified.data, 1280, 1024, 0, same), 0);
    for (int i = 0; i < 16; ++i)
        EXPECT_NEAR(same[i], pose[i], 1e-6);
}

TEST_F(PoseSolver, RefusesACameraFileWithoutASizeAndKeepsTheCameraItHas)
{
    ASSERT_TRUE(set_up(solver) && solver.init_camera({ file }, 0, 0, 0));
    std::string text = content(file);
    put(file, text.replace(text.find("cam0_size"), 9, "cam0_sice"));
    EXPECT_FALSE(solver.init_camera({ file }, 0, 0, 0) || solver.init_camera({ file }, 0, 1280, 1024));
    EXPECT_TRUE(solver.init_camera({ file }, 1, 0, 0));
}

} // namespace
} // namespace vexo
