// From pictures to files: both calibrators on photos of the virtual rig.

#include "base/plain_yaml.h"
#include "calib/board_series.h"
#include "calib/CameraCalibrator.h"
#include "calib/StereoCalibrator.h"
#include "camera/stereo_construction.h"
#include "support/folder.h"
#include "support/no_display.h"
#include "vexo/owned.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <cmath>

namespace vexo {
namespace {

using board_series::Series;
using board_series::series;
using board_series::set_up;
using Stereo = Owned<StereoCamera>;
constexpr int views = Series::views;

int put(StereoCalibrator& calibrator, int cam, int view)
{
    const cv::Mat& p = series().photo(cam == 1 ? 1 : 0, view);
    return calibrator.put_image(cam, p.data, p.cols, p.rows, p.step, false, "");
}

/// The pair calibrated from all views, and what the calibration said.
struct Calibrated {
    Calibrated()
    {
        set_up(pair);
        for (int i = 0; i < views; ++i)
            for (int c = 0; c < 2; ++c)
                EXPECT_EQ(put(pair, c, i), 0) << "view " << i << ", camera " << c;
        CameraCalibParam param;
        param.flags = cv::CALIB_USE_INTRINSIC_GUESS;
        EXPECT_TRUE(pair.do_calibrate(param, &errors, &rms));
        baseline = pair.create_stereo_camera(rectify, roi0, roi1);
    }

    StereoCalibrator pair;
    RectifyParam rectify;
    std::vector<std::vector<double>> errors;
    double rms = -1, baseline = -1;
    int roi0[4] = {}, roi1[4] = {};
};

Calibrated& calibrated()
{
    static Calibrated c;
    return c;
}

DistortCamera load(const std::string& file, const std::string& name)
{
    cv::FileStorage storage;
    DistortCamera camera({ 0, 0 }, name);
    EXPECT_TRUE(open_yaml(file, storage) && camera.load(&storage)) << file << " " << name;
    return camera;
}

/// Root mean square row difference of markers of new views after rectification, px.
double row_error(const DistortCamera* cams, const StereoCamera& stereo)
{
    const auto views = board_series::exact_views(series().board, board_series::poses(series().board, 6, 99));
    double sum = 0;
    size_t count = 0;
    for (size_t k = 0; k < views[0].size(); ++k) {
        std::vector<cv::Point2f> r0, r1;
        cv::undistortPoints(views[0][k], r0, cams[0].K, cams[0].D, stereo.cam0_R2, stereo.cam0.K);
        cv::undistortPoints(views[1][k], r1, cams[1].K, cams[1].D, stereo.cam1_R2, stereo.cam1.K);
        for (size_t i = 0; i < r0.size(); ++i, ++count)
            sum += (r0[i].y - r1[i].y) * (r0[i].y - r1[i].y);
    }
    return std::sqrt(sum / static_cast<double>(count));
}

TEST(StereoCalibrator, SixteenNoisyViewsGiveThePairWithinThePromisedAccuracy)
{
    Calibrated& c = calibrated();
    EXPECT_LE(c.rms, 0.15);
    EXPECT_NEAR(c.baseline, 160, 0.08);
    ASSERT_EQ(c.errors.size(), 2U);
    for (const std::vector<double>& errors : c.errors) {
        ASSERT_EQ(errors.size(), 16U);
        for (const double e : errors)
            EXPECT_LT(e, 0.2);
    }
    const Folder folder;
    const std::string file = folder / "cameras.yaml";
    ASSERT_TRUE(c.pair.save_calibfile(file, ""));
    const DistortCamera cams[2] = { load(file, "cam0"), load(file, "cam1") };
    for (size_t i = 0; i < 2; ++i) // px, the accuracy promised for 16 views
        EXPECT_LT(cv::norm(cams[i].K, cv::Mat(board_series::camera(i).K), cv::NORM_INF), 1.5);
    EXPECT_LT(cv::norm(cams[1].R - cv::Mat(board_series::cam1_from_cam0().R)), 2e-3);

    const Stereo stereo(create_StereoCamera({ file }, { 0, 0 }, c.rectify.alpha, c.rectify.flags, {}, {}));
    ASSERT_TRUE(stereo);
    EXPECT_NEAR(stereo->get_baseline_length(), c.baseline, 1e-9);
    EXPECT_LE(row_error(cams, *stereo), 0.03);
    EXPECT_EQ(cv::Rect(c.roi0[0], c.roi0[1], c.roi0[2], c.roi0[3]), stereo->cam0.roi);
    EXPECT_EQ(cv::Rect(c.roi1[0], c.roi1[1], c.roi1[2], c.roi1[3]), stereo->cam1.roi);
}

/// The stereo camera keeps the lenses that it was made of: a board in its frame stays where it was.
TEST(StereoCalibrator, LaterCalibrationLeavesTheBoardFrameOfAnEarlierStereoCamera)
{
    const Folder folder;
    StereoCalibrator pair;
    ASSERT_TRUE(set_up(pair));
    CameraCalibParam param;
    RectifyParam rectify;
    const cv::Mat &p0 = series().photo(0, 3), &p1 = series().photo(1, 3);
    std::string files[2];
    for (const int half : { 0, 1 }) {
        for (int i = 8 * half; i < 8 * half + 8; ++i)
            for (const int cam : { 0, 1 })
                ASSERT_EQ(put(pair, cam, i), 0);
        ASSERT_TRUE(pair.do_calibrate(param, nullptr, nullptr));
        if (half == 0) {
            ASSERT_GT(pair.create_stereo_camera(rectify, nullptr, nullptr), 0);
        }
        ASSERT_TRUE(pair.create_stereo_brdcrd(p0.data, p0.step, p1.data, p1.step));
        ASSERT_TRUE(pair.save_boardRT(folder / "rt.yaml"));
        files[half] = content(folder / "rt.yaml");
    }
    EXPECT_EQ(files[0], files[1]);
}

TEST(StereoCalibrator, BoardFrameGivesTheBoardsOwnCoordinatesAndDoesNotPileUp)
{
    Calibrated& c = calibrated();
    const Folder folder;
    const cv::Mat &p0 = series().photo(0, 3), &p1 = series().photo(1, 3);
    ASSERT_TRUE(p0.isContinuous() && p1.isContinuous());
    for (const char* name : { "once.yaml", "again.yaml" }) {
        const unsigned long step = name[0] == 'a' ? 0 : p0.step[0]; // 0: packed rows
        ASSERT_TRUE(c.pair.create_stereo_brdcrd(p0.data, step, p1.data, step));
        ASSERT_TRUE(c.pair.save_stereofile(folder / name, "", ""));
    }
    EXPECT_EQ(content(folder / "once.yaml"), content(folder / "again.yaml"));

    cv::FileStorage storage;
    StereoCamera in_board({ 1280, 1024 });
    ASSERT_TRUE(open_yaml(folder / "once.yaml", storage) && in_board.load(&storage));
    ASSERT_TRUE(c.pair.save_boardRT(folder / "rt.yaml"));
    cv::FileStorage rt;
    cv::Mat_<double> rect0_from_board;
    ASSERT_TRUE(open_yaml(folder / "rt.yaml", rt));
    rt["RT"] >> rect0_from_board;
    ASSERT_EQ(rect0_from_board.size(), cv::Size(4, 4));

    ASSERT_TRUE(c.pair.save_calibfile(folder / "cameras.yaml", ""));
    const DistortCamera cams[2] = { load(folder / "cameras.yaml", "cam0"), load(folder / "cameras.yaml", "cam1") };
    const auto views = board_series::exact_views(series().board, { series().poses[3] });
    std::vector<cv::Point2f> r0, r1;
    const Stereo raw(create_StereoCamera_from_pair(cams, { 0, 0 }, c.rectify.alpha, c.rectify.flags, {}, {}));
    cv::undistortPoints(views[0][0], r0, cams[0].K, cams[0].D, in_board.cam0_R2, raw->cam0.K);
    cv::undistortPoints(views[1][0], r1, cams[1].K, cams[1].D, in_board.cam1_R2, raw->cam1.K);
    for (const int k : { 0, 14, 112, 270, 284 }) {
        const auto i = static_cast<size_t>(k);
        const int column = k / 15;
        const cv::Vec3d expected((10 - column) * 12.0, (7 - k % 15) * 12.0, 0);
        const cv::Vec3d found = in_board.get3dposition_Q(r0[i].x, r0[i].y, r0[i].x - r1[i].x);
        EXPECT_LT(cv::norm(found - expected), 0.15) << found; // mm; 0.03 px of disparity are 0.08 mm of depth
        const cv::Vec3d in_rect0 = raw->get3dposition_Q(r0[i].x, r0[i].y, r0[i].x - r1[i].x);
        const cv::Matx44d board_from_rect0 = cv::Matx44d(rect0_from_board.ptr<double>()).inv();
        const cv::Vec4d moved = board_from_rect0 * cv::Vec4d(in_rect0[0], in_rect0[1], in_rect0[2], 1);
        EXPECT_LT(cv::norm(cv::Vec3d(moved[0], moved[1], moved[2]) - found), 1e-6);
    }
    cv::Mat blank(1024, 1280, CV_8U, cv::Scalar(90));
    EXPECT_FALSE(c.pair.create_stereo_brdcrd(p0.data, p0.step, blank.data, blank.step));
    EXPECT_FALSE(c.pair.create_stereo_brdcrd(nullptr, p0.step, p1.data, p1.step));
    EXPECT_FALSE(c.pair.create_stereo_brdcrd(folder / "none.png", folder / "none.png"));
    EXPECT_TRUE(c.pair.save_boardRT(folder / "rt2.yaml")); // the frame of the last success
}

TEST(StereoCalibrator, EveryFileComesBackAndWhatCannotBeWrittenIsFalse)
{
    Calibrated& c = calibrated();
    ASSERT_GT(c.pair.create_stereo_camera(c.rectify, nullptr, nullptr), 0); // also drops the board frame
    const Folder folder;
    EXPECT_FALSE(c.pair.save_stereohmat(folder / "b0", folder / "b1", folder / "b2", true));
    EXPECT_TRUE(c.pair.save_boardRT(folder / "rt.yaml")); // that of the first pair
    ASSERT_TRUE(c.pair.save_stereohmat(folder / "h0", folder / "h1", folder / "h2", false));
    ASSERT_TRUE(c.pair.save_stereofile(folder / "stereo.yaml", folder / "map0", folder / "map1"));
    ASSERT_TRUE(c.pair.save_calibfile(folder / "c0.yaml", folder / "c1.yaml"));

    const Stereo from_files(create_StereoCamera({ folder / "c0.yaml", folder / "c1.yaml" }, { 0, 0 }, -1, 0, {}, {})),
        from_hmat(create_StereoCamera_from_Hmats(folder / "h0", folder / "h1", folder / "h2", { 1280, 1024 }, {}, {}));
    StereoCamera loaded({ 1280, 1024 });
    loaded.cam0.map_file = folder / "map0";
    loaded.cam1.map_file = folder / "map1";
    cv::FileStorage storage;
    ASSERT_TRUE(open_yaml(folder / "stereo.yaml", storage) && loaded.load(&storage));
    ASSERT_TRUE(from_files && from_hmat);
    for (const StereoCamera* stereo : { from_files.get(), from_hmat.get(), &loaded })
        EXPECT_NEAR(stereo->get_baseline_length(), c.baseline, 1e-6);
    EXPECT_EQ(cv::norm(loaded.cam1.map1, from_hmat->cam1.map1, cv::NORM_INF), 0);

    RectifyParam smaller = c.rectify;
    smaller.width = 640;
    smaller.height = 512;
    ASSERT_GT(c.pair.create_stereo_camera(smaller, nullptr, nullptr), 0);
    EXPECT_FALSE(c.pair.save_stereohmat(folder / "x0", folder / "x1", folder / "x2", false));
    const std::string no_folder = folder / "no/such/";
    EXPECT_FALSE(c.pair.save_calibfile("", folder / "x1"));
    EXPECT_FALSE(c.pair.save_calibfile(no_folder + "a", ""));
    EXPECT_FALSE(c.pair.save_stereofile(no_folder + "a", "", ""));
    EXPECT_FALSE(c.pair.save_stereofile(folder / "x0", folder / "x1", folder / "no/../x1"));
    EXPECT_FALSE(c.pair.save_boardRT(folder / ""));
    for (const char* name : { "x0", "x1", "x2" })
        EXPECT_FALSE(std::filesystem::exists(folder / name)) << name;
    smaller.alpha = std::nan("");
    EXPECT_EQ(c.pair.create_stereo_camera(smaller, nullptr, nullptr), -1);
    EXPECT_FALSE(c.pair.save_stereofile(folder / "x0", "", ""));
    EXPECT_GT(c.pair.create_stereo_camera(c.rectify, nullptr, nullptr), 0);
}

TEST(StereoCalibrator, NothingIsTakenOrWrittenBeforeItsTurn)
{
    StereoCalibrator pair;
    CameraCalibParam param;
    RectifyParam rectify;
    const Folder folder;
    EXPECT_EQ(put(pair, 0, 0), -1);
    EXPECT_EQ(pair.put_image(folder / "none.png", false, ""), -1);
    EXPECT_FALSE(pair.do_calibrate(param, nullptr, nullptr));
    ASSERT_TRUE(set_up(pair));
    EXPECT_FALSE(pair.do_calibrate(param, nullptr, nullptr));
    EXPECT_EQ(pair.create_stereo_camera(rectify, nullptr, nullptr), -1);
    const cv::Mat& p = series().photo(0, 0);
    EXPECT_FALSE(pair.create_stereo_brdcrd(p.data, p.step, p.data, p.step));
    EXPECT_FALSE(pair.save_stereofile(folder / "a", folder / "b", folder / "c"));
    EXPECT_FALSE(pair.save_stereohmat(folder / "a", folder / "b", folder / "c", false));
    EXPECT_FALSE(pair.save_boardRT(folder / "a"));
    EXPECT_TRUE(std::filesystem::is_empty(folder / ""));
    for (const int cam : { -1, 2 })
        EXPECT_EQ(put(pair, cam, 0), -1);
    EXPECT_EQ(pair.put_image(0, folder / "none.png", false, ""), 2);
    EXPECT_EQ(pair.put_image(0, nullptr, 1280, 1024, 1280, false, ""), 2);
    EXPECT_EQ(pair.put_image(0, p.data, 1280, 1024, 1279, false, ""), 2);
    EXPECT_EQ(pair.put_image(0, p.data, -1, 1024, 1280, false, ""), 2);
    EXPECT_EQ(pair.put_image(0, p.data, 1280, 1024, 0, false, ""), 0); // packed rows
}

TEST(StereoCalibrator, FailedPicturesKeepTheirPlaceAndSideBySideIsTheSameAsTwo)
{
    const Folder folder;
    StereoCalibrator two, one;
    ASSERT_TRUE(set_up(two) && set_up(one));
    cv::Mat blank(1024, 1280, CV_8U, cv::Scalar(90));
    for (int i = 0; i < 5; ++i) { // picture 1 of camera 0 shows nothing
        cv::Mat both, left = i == 1 ? blank : series().photo(0, i);
        cv::hconcat(left, series().photo(1, i), both);
        ASSERT_TRUE(cv::imwrite(folder / "both.png", both));
        const std::string save = folder / (std::to_string(i) + ".png");
        NoDisplay no_display;
        EXPECT_EQ(one.put_image(folder / "both.png", true, save), i == 1 ? 2 : 0);
        EXPECT_TRUE(no_display.said("No display", 1));
        EXPECT_EQ(cv::imread(save).size(), both.size());
        EXPECT_EQ(two.put_image(0, left.data, left.cols, left.rows, left.step, false, ""), i == 1 ? 2 : 0);
        EXPECT_EQ(put(two, 1, i), 0);
    }
    ASSERT_TRUE(cv::imwrite(folder / "odd.png", blank.colRange(0, 1279)));
    EXPECT_EQ(one.put_image(folder / "odd.png", false, ""), 2); // appends nothing
    PreProcParam bad_block;
    bad_block.binarize_mode = 2;
    ASSERT_TRUE(set_up(one, bad_block));
    EXPECT_THROW(one.put_image(folder / "both.png", false, ""), cv::Exception); // appends an empty view to both
    ASSERT_TRUE(set_up(one));
    CameraCalibParam param;
    std::vector<std::vector<double>> errors;
    double rms_two = -1, rms_one = -1;
    ASSERT_TRUE(two.do_calibrate(param, nullptr, &rms_two));
    ASSERT_TRUE(one.do_calibrate(param, &errors, &rms_one));
    EXPECT_EQ(rms_one, rms_two);
    EXPECT_LT(rms_one, 0.2); // shifted pairs would give many pixels
    ASSERT_EQ(errors[0].size(), 6U);
    ASSERT_EQ(errors[1].size(), 6U);
    EXPECT_TRUE(std::isnan(errors[0][1]));
    EXPECT_FALSE(std::isnan(errors[1][1]));
    param.flags = cv::CALIB_USE_EXTRINSIC_GUESS; // there is no guess to be handed over
    EXPECT_FALSE(one.do_calibrate(param, nullptr, &rms_one));
    param.flags = cv::CALIB_USE_INTRINSIC_GUESS;
    param.focal_guess = -1;
    EXPECT_FALSE(one.do_calibrate(param, nullptr, &rms_one));
    EXPECT_EQ(rms_one, rms_two);
    RectifyParam rectify;
    EXPECT_NEAR(one.create_stereo_camera(rectify, nullptr, nullptr), 160, 1);
    EXPECT_TRUE(one.create_stereo_brdcrd(folder / "both.png"));
    EXPECT_FALSE(one.create_stereo_brdcrd(folder / "odd.png"));
}

TEST(CameraCalibrator, KeepsAcceptedViewsOnlyAndWritesTheCameraUnderItsName)
{
    const Folder folder;
    CameraCalibrator calibrator;
    cv::Mat blank(1024, 1280, CV_8U, cv::Scalar(90)), small = blank(cv::Rect(0, 0, 640, 512));
    EXPECT_EQ(calibrator.put_image(blank, false, ""), -1);
    EXPECT_EQ(calibrator.put_image(folder / "none.png", false, ""), -1);
    ASSERT_TRUE(set_up(calibrator));
    for (int i = 0; i < 5; ++i) {
        cv::Mat picture = series().photo(0, i);
        EXPECT_EQ(calibrator.put_image(picture, false, ""), 0);
        NoDisplay no_display;
        EXPECT_EQ(calibrator.put_image(blank, true, ""), 2);
        EXPECT_TRUE(no_display.said("No display", 1));
    }
    EXPECT_EQ(calibrator.put_image(small, false, folder / "size.png"), 1); // and the camera's size stays
    EXPECT_EQ(calibrator.put_image(folder / "none.png", false, ""), 2);
    EXPECT_EQ(calibrator.put_image(blank, false, folder / "binary.png"), 2);
    EXPECT_TRUE(std::filesystem::exists(folder / "binary.png"));
    EXPECT_FALSE(std::filesystem::exists(folder / "size.png")) << "a changed size has no picture";
    CameraCalibParam param;
    std::vector<double> errors;
    double rms = 0;
    ASSERT_TRUE(calibrator.do_calibrate(param, &errors, &rms));
    EXPECT_EQ(errors.size(), 5U);
    EXPECT_LT(rms, 0.15);
    CameraCalibParam bad_guess;
    bad_guess.flags = cv::CALIB_USE_INTRINSIC_GUESS;
    bad_guess.focal_guess = -1;
    EXPECT_THROW(calibrator.do_calibrate(bad_guess, &errors, &rms), cv::Exception);
    EXPECT_FALSE(calibrator.save_calibfile(folder / "", "left")); // cannot be written, but names the camera
    EXPECT_FALSE(calibrator.save_calibfile(folder / "bad.yaml", "7 no: key"));
    EXPECT_FALSE(std::filesystem::exists(folder / "bad.yaml"));
    ASSERT_TRUE(calibrator.save_calibfile(folder / "left.yaml", ""));
    const DistortCamera camera = load(folder / "left.yaml", "left");
    EXPECT_EQ(camera.size, cv::Size(1280, 1024));
    EXPECT_NEAR(camera.K(0, 0), board_series::camera(0).K(0, 0), 6); // five views
}

} // namespace
} // namespace vexo
