// The two calibration functions on marker lists with known truth.

#include "board/KorvaCalibBoardRecognizer.h"
#include "calib/board_series.h"
#include "calib/Calibrator.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <cfloat>
#include <cmath>

namespace vexo {
namespace {

struct CalibrationFunctions : testing::Test {
    CalibrationFunctions()
    {
        PreProcParam pre;
        CircleMarkerParam circle;
        CalibBoardParam param = board.param();
        recognizer.set_parameters(pre, circle, param);
    }

    static DistortCamera camera() { return DistortCamera({ 1280, 1024 }, ""); }

    const board_photos::Board board = board_photos::coarse_board();
    std::array<std::vector<View>, 2> views = board_series::exact_views(board, board_series::poses(board, 8, 3));
    KORVACalibBoardRecognizer recognizer;
    CameraCalibParam param;
};

TEST_F(CalibrationFunctions, ExactViewsGiveBackTheCamerasAndTheirPose)
{
    std::array<DistortCamera, 2> cams = { camera(), camera() };
    for (size_t c = 0; c < 2; ++c) {
        std::vector<double> errors = { 1, 2, 3 };
        double rms = -1;
        ASSERT_TRUE(calib_intrinsic(cams[c], param, &recognizer, views[c], &errors, &rms));
        // Marker lists are single precision, 6e-5 px at 1000: 30 steps come down to about that.
        EXPECT_LT(rms, 1e-3);
        EXPECT_EQ(errors.size(), 8U);
        EXPECT_LT(cv::norm(cams[c].K, cv::Mat(board_series::camera(c).K), cv::NORM_INF), 0.05);
        EXPECT_NEAR(cams[c].P(0, 0), cams[c].K(0, 0), 0) << "composed";
    }
    std::vector<bool> used;
    double rms = -1;
    ASSERT_TRUE(calib_extrinsic(cams, &recognizer, views, cv::CALIB_FIX_INTRINSIC, used, &rms));
    EXPECT_LT(rms, 1e-3);
    EXPECT_EQ(used, std::vector<bool>(8, true));
    const board_photos::Pose pose = board_series::cam1_from_cam0();
    EXPECT_LT(cv::norm(cams[1].R - cv::Mat(pose.R)), 1e-5);
    EXPECT_LT(cv::norm(cams[1].T - cv::Mat(pose.T)), 5e-3);
    EXPECT_EQ(cv::norm(cams[0].RT, cv::Mat_<double>::eye(4, 4)), 0);
    EXPECT_EQ(cv::norm(cams[1].RT(cv::Rect(0, 0, 3, 3)), cams[1].R), 0);
}

TEST_F(CalibrationFunctions, ViewsOfFourMarkersOrNoneAreSkippedAndTheirErrorIsNaN)
{
    for (size_t k = 4; k < views[0][2].size(); ++k)
        views[0][2][k] = { FLT_MAX, FLT_MAX };
    views[0].insert(views[0].begin() + 5, View());
    DistortCamera cam = camera();
    std::vector<double> errors;
    ASSERT_TRUE(calib_intrinsic(cam, param, &recognizer, views[0], &errors, nullptr));
    ASSERT_EQ(errors.size(), 9U);
    for (size_t k = 0; k < 9; ++k)
        EXPECT_EQ(std::isnan(errors[k]), k == 2 || k == 5) << k;

    std::vector<View> unusable = { View(), views[0][2] };
    const cv::Mat K = cam.K.clone();
    EXPECT_FALSE(calib_intrinsic(cam, param, &recognizer, unusable, nullptr, nullptr));
    EXPECT_FALSE(calib_intrinsic(cam, param, nullptr, views[0], nullptr, nullptr));
    EXPECT_EQ(cv::norm(cam.K, K), 0);
}

TEST_F(CalibrationFunctions, GuessFlagWithoutAFocalLengthCalibratesAsWithoutIt)
{
    DistortCamera plain = camera(), flagged = camera(), guessed = camera();
    ASSERT_TRUE(calib_intrinsic(plain, param, &recognizer, views[0], nullptr, nullptr));
    param.flags = cv::CALIB_USE_INTRINSIC_GUESS;
    ASSERT_TRUE(calib_intrinsic(flagged, param, &recognizer, views[0], nullptr, nullptr));
    EXPECT_EQ(cv::norm(plain.K, flagged.K), 0);
    param.focal_guess = 1300;
    ASSERT_TRUE(calib_intrinsic(guessed, param, &recognizer, views[0], nullptr, nullptr));
    EXPECT_NEAR(guessed.K(0, 0), plain.K(0, 0), 0.05); // another way to the same minimum
    param.flags |= cv::CALIB_FIX_FOCAL_LENGTH | cv::CALIB_FIX_PRINCIPAL_POINT;
    ASSERT_TRUE(calib_intrinsic(guessed, param, &recognizer, views[0], nullptr, nullptr));
    EXPECT_EQ(guessed.K(0, 0), 1300);
    EXPECT_EQ(guessed.K(0, 2), 640);
}

TEST_F(CalibrationFunctions, PairsAreThoseOfEqualNumberAndAnEmptyViewKeepsThePlace)
{
    std::array<DistortCamera, 2> cams = { camera(), camera() };
    for (size_t c = 0; c < 2; ++c)
        ASSERT_TRUE(calib_intrinsic(cams[c], param, &recognizer, views[c], nullptr, nullptr));
    views[0][1].clear();
    views[1][4].assign(3, { 5, 5 }); // three markers only
    views[1].pop_back();
    std::vector<bool> used;
    ASSERT_TRUE(calib_extrinsic(cams, &recognizer, views, cv::CALIB_FIX_INTRINSIC, used, nullptr));
    EXPECT_EQ(used, (std::vector<bool> { true, false, true, true, false, true, true }));
    EXPECT_NEAR(cv::norm(cams[1].T), 160, 5e-3);

    const cv::Mat T = cams[1].T.clone();
    views[0].assign(7, View());
    EXPECT_FALSE(calib_extrinsic(cams, &recognizer, views, 0, used, nullptr));
    EXPECT_EQ(cv::norm(cams[1].T, T), 0);
}

TEST_F(CalibrationFunctions, DegenerateViewsThrowOrFailAndLeaveTheCameraAlone)
{
    std::vector<View> one_point(3, View(views[0][0].size(), { 100, 100 }));
    DistortCamera cam = camera();
    const cv::Mat K = cam.K.clone();
    bool done = false;
    try {
        done = calib_intrinsic(cam, param, &recognizer, one_point, nullptr, nullptr);
    } catch (const cv::Exception&) {
    }
    if (!done) {
        EXPECT_EQ(cv::norm(cam.K, K), 0);
    } else {
        EXPECT_TRUE(cv::checkRange(cam.K));
    }
}

} // namespace
} // namespace vexo
