// From pictures to files: both calibrators and the pose solver on rendered boards.

#include "base/plain_yaml.h"
#include "base/whole_file.h"
#include "board/PreProcessor.h"
#include "calib/CalibBoardPoseSolver.h"
#include "calib/CameraCalibrator.h"
#include "calib/rig.h"
#include "calib/StereoCalibrator.h"
#include "camera/stereo_construction.h"
#include "support/no_display.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>

#include <cmath>
#include <filesystem>

namespace vexo {
namespace {

using board_image::Board;
using board_image::Pose;

/// Sixteen views of the default board by both cameras, rendered once for all tests.
struct Series {
    Series()
        : board(board_image::default_board())
        , poses(rig::poses(board, views, 7))
    {
        const auto cams = rig::cameras();
        for (int c = 0; c < 2; ++c) {
            const board_image::Renderer renderer(cams[static_cast<size_t>(c)]);
            for (int i = 0; i < views; ++i)
                pictures[static_cast<size_t>(c)].push_back(
                    renderer.render(board, rig::camera_from_rig(c) * poses[static_cast<size_t>(i)], {}, 2 * i + c));
        }
    }

    static constexpr int views = 16;
    Board board;
    std::vector<Pose> poses; // board -> rig
    std::array<std::vector<cv::Mat>, 2> pictures;
};

const Series& series()
{
    static const Series s;
    return s;
}

template <class Object> bool set_up(Object& object, PreProcParam pre = {})
{
    CircleMarkerParam circle = board_image::marker_settings();
    CalibBoardParam board = series().board.param;
    return object.set_parameters(pre, circle, board);
}

int put(StereoCalibrator& calibrator, int cam, int view)
{
    const cv::Mat& p = series().pictures[cam == 1 ? 1 : 0][static_cast<size_t>(view)];
    return calibrator.put_image(cam, p.data, p.cols, p.rows, p.step, false, "");
}

/// The pair calibrated from all views, and what the calibration said.
struct Calibrated {
    Calibrated()
    {
        set_up(pair);
        for (int i = 0; i < Series::views; ++i)
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

std::string folder_for(const std::string& test)
{
    const std::string folder = testing::TempDir() + "vexo_calib_" + test + "_" + std::to_string(::getpid()) + "/";
    std::filesystem::create_directories(folder);
    return folder;
}

DistortCamera load(const std::string& file, const std::string& name)
{
    cv::FileStorage storage;
    DistortCamera camera({ 0, 0 }, name);
    EXPECT_TRUE(open_yaml(file, storage) && camera.load(&storage)) << file << " " << name;
    return camera;
}

void expect_intrinsics(const DistortCamera& found, const board_image::Camera& truth)
{
    const double errors[]
        = { found.K(0, 0) - truth.fx, found.K(1, 1) - truth.fy, found.K(0, 2) - truth.cx, found.K(1, 2) - truth.cy };
    for (const double error : errors)
        EXPECT_NEAR(error, 0, 1.5); // px, the accuracy promised for 16 views
    std::printf("%s: errors of fx %.2f, fy %.2f, cx %.2f, cy %.2f px\n", found.name.c_str(), errors[0], errors[1],
        errors[2], errors[3]);
}

/// Root mean square row difference of markers of new views after rectification, px.
double row_error(const DistortCamera* cams, const StereoCamera& stereo)
{
    const auto views = rig::exact_views(series().board, rig::poses(series().board, 6, 99));
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
    const std::string folder = folder_for("accuracy"), file = folder + "cameras.yaml";
    ASSERT_TRUE(c.pair.save_calibfile(file, ""));
    const DistortCamera cams[2] = { load(file, "cam0"), load(file, "cam1") };
    for (size_t i = 0; i < 2; ++i)
        expect_intrinsics(cams[i], rig::cameras()[i]);
    EXPECT_LT(cv::norm(cams[1].R - cv::Mat(rig::cam1_from_cam0().R)), 2e-3);

    StereoCamera* stereo = create_StereoCamera({ file }, { 0, 0 }, c.rectify.alpha, c.rectify.flags, {}, {});
    ASSERT_NE(stereo, nullptr);
    EXPECT_NEAR(stereo->get_baseline_length(), c.baseline, 1e-9);
    const double rows = row_error(cams, *stereo);
    EXPECT_LE(rows, 0.03);
    std::printf("rms %.4f px, baseline %+.4f mm, row error %.4f px\n", c.rms, c.baseline - 160, rows);
    EXPECT_EQ(cv::Rect(c.roi0[0], c.roi0[1], c.roi0[2], c.roi0[3]), stereo->cam0.roi);
    EXPECT_EQ(cv::Rect(c.roi1[0], c.roi1[1], c.roi1[2], c.roi1[3]), stereo->cam1.roi);
    stereo->destroy();
    std::filesystem::remove_all(folder);
}

/// The stereo camera keeps the lenses that it was made of: a board in its frame stays where it was.
TEST(StereoCalibrator, LaterCalibrationLeavesTheBoardFrameOfAnEarlierStereoCamera)
{
    const std::string folder = folder_for("later");
    StereoCalibrator pair;
    ASSERT_TRUE(set_up(pair));
    CameraCalibParam param;
    RectifyParam rectify;
    const cv::Mat &p0 = series().pictures[0][3], &p1 = series().pictures[1][3];
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
        ASSERT_TRUE(pair.save_boardRT(folder + "rt.yaml"));
        ASSERT_TRUE(read_file(folder + "rt.yaml", 1 << 20, files[half]));
    }
    EXPECT_EQ(files[0], files[1]);
    std::filesystem::remove_all(folder);
}

TEST(StereoCalibrator, BoardFrameGivesTheBoardsOwnCoordinatesAndDoesNotPileUp)
{
    Calibrated& c = calibrated();
    const std::string folder = folder_for("board_frame");
    const cv::Mat &p0 = series().pictures[0][3], &p1 = series().pictures[1][3];
    ASSERT_TRUE(p0.isContinuous() && p1.isContinuous());
    for (const char* name : { "once.yaml", "again.yaml" }) {
        const unsigned long step = name[0] == 'a' ? 0 : p0.step[0]; // 0: packed rows
        ASSERT_TRUE(c.pair.create_stereo_brdcrd(p0.data, step, p1.data, step));
        ASSERT_TRUE(c.pair.save_stereofile(folder + name, "", ""));
    }
    std::string once, again;
    ASSERT_TRUE(read_file(folder + "once.yaml", 1 << 20, once));
    ASSERT_TRUE(read_file(folder + "again.yaml", 1 << 20, again));
    EXPECT_EQ(once, again);

    cv::FileStorage storage;
    StereoCamera in_board({ 1280, 1024 });
    ASSERT_TRUE(open_yaml(folder + "once.yaml", storage) && in_board.load(&storage));
    ASSERT_TRUE(c.pair.save_boardRT(folder + "rt.yaml"));
    cv::FileStorage rt;
    cv::Mat_<double> rect0_from_board;
    ASSERT_TRUE(open_yaml(folder + "rt.yaml", rt));
    rt["RT"] >> rect0_from_board;
    ASSERT_EQ(rect0_from_board.size(), cv::Size(4, 4));

    ASSERT_TRUE(c.pair.save_calibfile(folder + "cameras.yaml", ""));
    const DistortCamera cams[2] = { load(folder + "cameras.yaml", "cam0"), load(folder + "cameras.yaml", "cam1") };
    const auto views = rig::exact_views(series().board, { series().poses[3] });
    std::vector<cv::Point2f> r0, r1;
    std::vector<cv::Point3f> on_board;
    const std::unique_ptr<StereoCamera> raw(
        create_StereoCamera_from_pair(cams, { 0, 0 }, c.rectify.alpha, c.rectify.flags, {}, {}));
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
    EXPECT_FALSE(c.pair.create_stereo_brdcrd(folder + "none.png", folder + "none.png"));
    EXPECT_TRUE(c.pair.save_boardRT(folder + "rt2.yaml")); // the frame of the last success
    std::filesystem::remove_all(folder);
}

TEST(StereoCalibrator, EveryFileComesBackAndWhatCannotBeWrittenIsFalse)
{
    Calibrated& c = calibrated();
    ASSERT_GT(c.pair.create_stereo_camera(c.rectify, nullptr, nullptr), 0); // also drops the board frame
    const std::string folder = folder_for("files");
    EXPECT_FALSE(c.pair.save_stereohmat(folder + "b0", folder + "b1", folder + "b2", true));
    EXPECT_TRUE(c.pair.save_boardRT(folder + "rt.yaml")); // that of the first pair
    ASSERT_TRUE(c.pair.save_stereohmat(folder + "h0", folder + "h1", folder + "h2", false));
    ASSERT_TRUE(c.pair.save_stereofile(folder + "stereo.yaml", folder + "map0", folder + "map1"));
    ASSERT_TRUE(c.pair.save_calibfile(folder + "c0.yaml", folder + "c1.yaml"));

    StereoCamera* from_files = create_StereoCamera({ folder + "c0.yaml", folder + "c1.yaml" }, { 0, 0 }, -1, 0, {}, {});
    StereoCamera* from_hmat
        = create_StereoCamera_from_Hmats(folder + "h0", folder + "h1", folder + "h2", { 1280, 1024 }, {}, {});
    StereoCamera loaded({ 1280, 1024 });
    loaded.cam0.map_file = folder + "map0";
    loaded.cam1.map_file = folder + "map1";
    cv::FileStorage storage;
    ASSERT_TRUE(open_yaml(folder + "stereo.yaml", storage) && loaded.load(&storage));
    ASSERT_TRUE(from_files != nullptr && from_hmat != nullptr);
    for (StereoCamera* stereo : { from_files, from_hmat, &loaded })
        EXPECT_NEAR(stereo->get_baseline_length(), c.baseline, 1e-6);
    EXPECT_EQ(cv::norm(loaded.cam1.map1, from_hmat->cam1.map1, cv::NORM_INF), 0);
    from_files->destroy();
    from_hmat->destroy();

    RectifyParam smaller = c.rectify;
    smaller.width = 640;
    smaller.height = 512;
    ASSERT_GT(c.pair.create_stereo_camera(smaller, nullptr, nullptr), 0);
    EXPECT_FALSE(c.pair.save_stereohmat(folder + "x0", folder + "x1", folder + "x2", false));
    const std::string no_folder = folder + "no/such/";
    EXPECT_FALSE(c.pair.save_calibfile("", folder + "x1"));
    EXPECT_FALSE(c.pair.save_calibfile(no_folder + "a", ""));
    EXPECT_FALSE(c.pair.save_stereofile(no_folder + "a", "", ""));
    EXPECT_FALSE(c.pair.save_stereofile(folder + "x0", folder + "x1", folder + "no/../x1"));
    EXPECT_FALSE(c.pair.save_boardRT(folder));
    for (const char* name : { "x0", "x1", "x2" })
        EXPECT_FALSE(std::filesystem::exists(folder + name)) << name;
    smaller.alpha = std::nan("");
    EXPECT_EQ(c.pair.create_stereo_camera(smaller, nullptr, nullptr), -1);
    EXPECT_FALSE(c.pair.save_stereofile(folder + "x0", "", ""));
    EXPECT_GT(c.pair.create_stereo_camera(c.rectify, nullptr, nullptr), 0);
    std::filesystem::remove_all(folder);
}

TEST(StereoCalibrator, NothingIsTakenOrWrittenBeforeItsTurn)
{
    StereoCalibrator pair;
    CameraCalibParam param;
    RectifyParam rectify;
    const std::string folder = folder_for("order");
    EXPECT_EQ(put(pair, 0, 0), -1);
    EXPECT_EQ(pair.put_image(folder + "none.png", false, ""), -1);
    EXPECT_FALSE(pair.do_calibrate(param, nullptr, nullptr));
    ASSERT_TRUE(set_up(pair));
    EXPECT_FALSE(pair.do_calibrate(param, nullptr, nullptr));
    EXPECT_EQ(pair.create_stereo_camera(rectify, nullptr, nullptr), -1);
    const cv::Mat& p = series().pictures[0][0];
    EXPECT_FALSE(pair.create_stereo_brdcrd(p.data, p.step, p.data, p.step));
    EXPECT_FALSE(pair.save_stereofile(folder + "a", folder + "b", folder + "c"));
    EXPECT_FALSE(pair.save_stereohmat(folder + "a", folder + "b", folder + "c", false));
    EXPECT_FALSE(pair.save_boardRT(folder + "a"));
    EXPECT_TRUE(std::filesystem::is_empty(folder));
    for (const int cam : { -1, 2 })
        EXPECT_EQ(put(pair, cam, 0), -1);
    EXPECT_EQ(pair.put_image(0, folder + "none.png", false, ""), 2);
    EXPECT_EQ(pair.put_image(0, nullptr, 1280, 1024, 1280, false, ""), 2);
    EXPECT_EQ(pair.put_image(0, p.data, 1280, 1024, 1279, false, ""), 2);
    EXPECT_EQ(pair.put_image(0, p.data, -1, 1024, 1280, false, ""), 2);
    EXPECT_EQ(pair.put_image(0, p.data, 1280, 1024, 0, false, ""), 0); // packed rows
    std::filesystem::remove_all(folder);
}

TEST(StereoCalibrator, FailedPicturesKeepTheirPlaceAndSideBySideIsTheSameAsTwo)
{
    const std::string folder = folder_for("side_by_side");
    StereoCalibrator two, one;
    ASSERT_TRUE(set_up(two) && set_up(one));
    cv::Mat blank(1024, 1280, CV_8U, cv::Scalar(90));
    for (int i = 0; i < 5; ++i) { // picture 1 of camera 0 shows nothing
        cv::Mat both, left = i == 1 ? blank : series().pictures[0][static_cast<size_t>(i)];
        cv::hconcat(left, series().pictures[1][static_cast<size_t>(i)], both);
        ASSERT_TRUE(cv::imwrite(folder + "both.png", both));
        const std::string save = folder + std::to_string(i) + ".png";
        NoDisplay no_display;
        EXPECT_EQ(one.put_image(folder + "both.png", true, save), i == 1 ? 2 : 0);
        EXPECT_TRUE(no_display.said("No display", 1));
        EXPECT_EQ(cv::imread(save).size(), both.size());
        EXPECT_EQ(two.put_image(0, left.data, left.cols, left.rows, left.step, false, ""), i == 1 ? 2 : 0);
        EXPECT_EQ(put(two, 1, i), 0);
    }
    ASSERT_TRUE(cv::imwrite(folder + "odd.png", blank.colRange(0, 1279)));
    EXPECT_EQ(one.put_image(folder + "odd.png", false, ""), 2); // appends nothing
    PreProcParam bad_block;
    bad_block.binarize_mode = 2;
    ASSERT_TRUE(set_up(one, bad_block));
    EXPECT_THROW(one.put_image(folder + "both.png", false, ""), cv::Exception); // appends an empty view to both
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
    EXPECT_TRUE(one.create_stereo_brdcrd(folder + "both.png"));
    EXPECT_FALSE(one.create_stereo_brdcrd(folder + "odd.png"));
    std::filesystem::remove_all(folder);
}

TEST(CameraCalibrator, KeepsAcceptedViewsOnlyAndWritesTheCameraUnderItsName)
{
    const std::string folder = folder_for("single");
    CameraCalibrator calibrator;
    cv::Mat blank(1024, 1280, CV_8U, cv::Scalar(90)), small = blank(cv::Rect(0, 0, 640, 512));
    EXPECT_EQ(calibrator.put_image(blank, false, ""), -1);
    EXPECT_EQ(calibrator.put_image(folder + "none.png", false, ""), -1);
    ASSERT_TRUE(set_up(calibrator));
    for (size_t i = 0; i < 5; ++i) {
        cv::Mat picture = series().pictures[0][i];
        EXPECT_EQ(calibrator.put_image(picture, false, ""), 0);
        NoDisplay no_display;
        EXPECT_EQ(calibrator.put_image(blank, true, ""), 2);
        EXPECT_TRUE(no_display.said("No display", 1));
    }
    EXPECT_EQ(calibrator.put_image(small, false, folder + "size.png"), 1); // and the camera's size stays
    EXPECT_EQ(calibrator.put_image(folder + "none.png", false, ""), 2);
    EXPECT_EQ(calibrator.put_image(blank, false, folder + "binary.png"), 2);
    EXPECT_TRUE(std::filesystem::exists(folder + "binary.png"));
    EXPECT_FALSE(std::filesystem::exists(folder + "size.png")) << "a changed size has no picture";
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
    EXPECT_FALSE(calibrator.save_calibfile(folder, "left")); // cannot be written, but names the camera
    EXPECT_FALSE(calibrator.save_calibfile(folder + "bad.yaml", "7 no: key"));
    EXPECT_FALSE(std::filesystem::exists(folder + "bad.yaml"));
    ASSERT_TRUE(calibrator.save_calibfile(folder + "left.yaml", ""));
    const DistortCamera camera = load(folder + "left.yaml", "left");
    EXPECT_EQ(camera.size, cv::Size(1280, 1024));
    EXPECT_NEAR(camera.K(0, 0), 1402, 6); // five views
    std::filesystem::remove_all(folder);
}

TEST(CalibBoardPoseSolver, FindsThePoseOfEachCameraOfAFileAndNothingWithoutOne)
{
    const std::string folder = folder_for("pose"), file = folder + "cameras.yaml";
    ASSERT_TRUE(calibrated().pair.save_calibfile(file, file));
    for (int cam = 0; cam < 2; ++cam) {
        CalibBoardPoseSolver& solver = *new CalibBoardPoseSolver;
        const cv::Mat& p = series().pictures[static_cast<size_t>(cam)][2];
        double pose[16] = { 7 };
        EXPECT_EQ(solver.solve_pose(p.data, p.cols, p.rows, p.step, pose), -1);
        for (const std::vector<std::string>& files : { std::vector<std::string> {}, { folder + "none" } })
            EXPECT_FALSE(solver.init_camera(files, 0, 0, 0));
        EXPECT_FALSE(solver.init_camera({ file }, 2, 0, 0));
        EXPECT_FALSE(solver.init_camera({ file }, -1, 0, 0));
        EXPECT_FALSE(solver.init_camera({ file }, cam, 640, 480));
        ASSERT_TRUE(solver.init_camera({ file }, cam, 1280, 1024));
        EXPECT_EQ(solver.solve_pose(p.data, p.cols, p.rows, p.step, pose), -1); // no parameters yet
        PreProcParam even_block;
        even_block.binarize_mode = kAdaptiveMean;
        even_block.threshold = 4;
        ASSERT_TRUE(set_up(solver, even_block));
        EXPECT_EQ(solver.solve_pose(p.data, p.cols, p.rows, p.step, pose), 2);
        ASSERT_TRUE(set_up(solver));
        EXPECT_EQ(solver.solve_pose(p.data, 640, 512, p.step, pose), 1);
        EXPECT_EQ(solver.solve_pose(p.data, p.cols, p.rows, p.step, nullptr), -1);
        EXPECT_EQ(solver.solve_pose(folder + "none.png", true, pose), 2);
        EXPECT_EQ(solver.ptr_debug_image(), nullptr);
        EXPECT_EQ(pose[0], 7);
        ASSERT_EQ(solver.solve_pose(p.data, p.cols, p.rows, 0, pose), 0); // packed rows
        const Pose truth = rig::camera_from_rig(cam) * series().poses[2];
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j)
                EXPECT_NEAR(pose[4 * i + j], truth.R(i, j), 3e-3);
            EXPECT_NEAR(pose[4 * i + 3], truth.t[i], 1); // mm: 1.5 px of focal length are 0.6 mm at 560
        }
        int width = 0, height = 0;
        solver.get_size(&width, &height);
        EXPECT_EQ(cv::Size(width, height), p.size());
        ASSERT_NE(solver.ptr_debug_image(), nullptr);
        ASSERT_TRUE(cv::imwrite(folder + "board.png", p));
        const cv::Mat before = cv::Mat(height, width, CV_8UC3, solver.ptr_debug_image()).clone();
        ASSERT_EQ(solver.solve_pose(folder + "board.png", true, pose), 0);
        solver.save_debug_image(folder + "axes.png");
        NoDisplay no_display;
        solver.show_debug_image();
        EXPECT_TRUE(no_display.said("No display for the window \"debug\"", 1));
        EXPECT_GT(cv::norm(cv::imread(folder + "axes.png"), before), 0);
        solver.destroy();
    }
    std::filesystem::remove_all(folder);
}

TEST(CalibBoardPoseSolver, TakesRectifiedPicturesForTheCamerasOfStereoFilesAndHmatSets)
{
    Calibrated& c = calibrated();
    const std::string folder = folder_for("rectified_pose"), yaml = folder + "stereo.yaml";
    const std::vector<std::string> set { folder + "h0", folder + "h1", folder + "h2" };
    ASSERT_GT(c.pair.create_stereo_camera(c.rectify, nullptr, nullptr), 0);
    ASSERT_TRUE(c.pair.save_stereohmat(set[0], set[1], set[2], false) && c.pair.save_stereofile(yaml, "", ""));
    const Owned<StereoCamera> stereo(create_StereoCamera_from_Hmats(set[0], set[1], set[2], { 1280, 1024 }, {}, {}));
    StereoCamera with_rotations({ 1280, 1024 });
    cv::FileStorage storage;
    ASSERT_TRUE(stereo && open_yaml(yaml, storage) && with_rotations.load(&storage));

    CalibBoardPoseSolver solver;
    ASSERT_TRUE(set_up(solver));
    double pose[16] = {};
    for (int cam = 0; cam < 2; ++cam) {
        cv::Mat raw = series().pictures[static_cast<size_t>(cam)][2], rectified(raw.size(), CV_8U);
        ASSERT_TRUE(stereo->remap(raw.data, 0, rectified.data, 0, cam));
        const Pose truth = rig::camera_from_rig(cam) * series().poses[2];
        const cv::Mat_<double>& rectified_from_raw = cam == 0 ? with_rotations.cam0_R2 : with_rotations.cam1_R2;
        const cv::Matx33d turn(rectified_from_raw.ptr<double>());
        for (const auto& files : { std::vector<std::string> { yaml }, set }) {
            ASSERT_TRUE(solver.init_camera(files, cam, 1280, 1024)) << files.size();
            ASSERT_EQ(solver.solve_pose(rectified.data, 1280, 1024, 0, pose), 0) << files.size();
            const cv::Matx33d R = turn * truth.R;
            const cv::Vec3d t = turn * truth.t;
            for (int i = 0; i < 3; ++i) {
                for (int j = 0; j < 3; ++j)
                    EXPECT_NEAR(pose[4 * i + j], R(i, j), 3e-3); // as for raw pictures
                EXPECT_NEAR(pose[4 * i + 3], t[i], 1);
            }
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
    std::string bytes;
    ASSERT_TRUE(read_file(set[1], 96, bytes));
    for (size_t i = 0; i < 12; ++i)
        bytes[8 * i + 7] = static_cast<char>(bytes[8 * i + 7] ^ '\x80'); // the signs of its doubles
    ASSERT_TRUE(write_file(set[1], bytes) && solver.init_camera(set, 1, 1280, 1024));
    cv::Mat raw = series().pictures[1][2], rectified(raw.size(), CV_8U);
    double same[16] = {};
    ASSERT_TRUE(stereo->remap(raw.data, 0, rectified.data, 0, 1));
    ASSERT_EQ(solver.solve_pose(rectified.data, 1280, 1024, 0, same), 0);
    for (int i = 0; i < 16; ++i)
        EXPECT_NEAR(same[i], pose[i], 1e-6);
    std::filesystem::remove_all(folder);
}

TEST(CalibBoardPoseSolver, RefusesACameraFileWithoutASizeAndKeepsTheCameraItHas)
{
    const std::string folder = folder_for("sizeless"), file = folder + "cameras.yaml";
    ASSERT_TRUE(calibrated().pair.save_calibfile(file, ""));
    CalibBoardPoseSolver solver;
    ASSERT_TRUE(set_up(solver) && solver.init_camera({ file }, 0, 0, 0));
    std::string text;
    ASSERT_TRUE(read_file(file, 1 << 20, text));
    text.replace(text.find("cam0_size"), 9, "cam0_sice");
    ASSERT_TRUE(write_file(file, text));
    EXPECT_FALSE(solver.init_camera({ file }, 0, 0, 0) || solver.init_camera({ file }, 0, 1280, 1024));
    EXPECT_TRUE(solver.init_camera({ file }, 1, 0, 0));
    std::filesystem::remove_all(folder);
}

} // namespace
} // namespace vexo
