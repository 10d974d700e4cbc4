// What the recognisers are asked for beside the markers: parameters, codes, pictures, windows.

#include "board/opened_recognizer.h"
#include "board/ZEPHCalibBoardRecognizer.h"
#include "support/folder.h"
#include "support/no_display.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <cfloat>
#include <climits>

namespace vexo {
namespace {

TEST(Recognizer, BoardPointsFallAlongTheIndicesAndTheOriginHasItsIndex)
{
    Korva r;
    ASSERT_TRUE(r.set(CalibBoardParam { 10, 3, 2, 1, 0, 1.2 }));
    const std::vector<cv::Point3f> expected
        = { { 10, 0, 0 }, { 10, -10, 0 }, { 0, 0, 0 }, { 0, -10, 0 }, { -10, 0, 0 }, { -10, -10, 0 } };
    EXPECT_EQ(r.board_points, expected);
    EXPECT_EQ(r.get_marker_index({ 0, 0 }), 2);
    EXPECT_EQ(r.get_marker_range(), cv::Rect(1, 1, 3, 2));

    std::vector<cv::Point2f> image(6, { FLT_MAX, FLT_MAX }), other(3, { 7, 8 }), out0, out1;
    std::vector<cv::Point3f> points = { { 1, 2, 3 } };
    EXPECT_EQ(r.corresponding_points(image, out0, points), 0);
    EXPECT_TRUE(out0.empty() && points.empty());
    image[1] = { 1, 2 };
    image[4] = { 3, 4 };
    EXPECT_EQ(r.corresponding_points(image, out0, points), 2);
    EXPECT_EQ(points, (std::vector<cv::Point3f> { expected[1], expected[4] }));
    EXPECT_EQ(r.corresponding_points(image, other, out0, out1, points), 1); // the short list ends at 2
    EXPECT_EQ(out0[0], image[1]);
    EXPECT_EQ(out1[0], other[1]);
    EXPECT_EQ(points[0], expected[1]);
}

TEST(Recognizer, RefusedParametersLeaveAllSettingsAsTheyWere)
{
    const Board board = board_photos::coarse_board();
    Korva r;
    ASSERT_TRUE(r.set(board));
    PreProcParam inverted;
    inverted.invert = true;
    constexpr double inf = std::numeric_limits<double>::infinity();
    const CalibBoardParam refused[] = { { 0, 5, 5, 0, 0, 9 }, { -1, 5, 5, 0, 0, 9 }, { std::nan(""), 5, 5, 0, 0, 9 },
        { inf, 5, 5, 0, 0, 9 }, { 1, 0, 5, 0, 0, 9 }, { 1, 5, -5, 0, 0, 9 }, { 1, 1000, 1001, 0, 0, 9 },
        { 1, 1 << 30, 1 << 30, 0, 0, 9 }, { 1e39, 5, 5, 0, 0, 9 }, { 1e-60, 5, 5, 0, 0, 9 } };
    for (const CalibBoardParam& bad : refused)
        EXPECT_FALSE(r.set(bad, inverted)) << bad.pitch << " " << bad.columns << " " << bad.rows;
    EXPECT_EQ(r.look(picture_of(board)), kSuccess);
    EXPECT_EQ(r.points.size(), 99U);
}

TEST(Recognizer, ImageSizeIsThatOfTheFirstImageUntilParametersAreSetAgain)
{
    const Board board = board_photos::coarse_board();
    Korva r;
    ASSERT_TRUE(r.set(board));
    const cv::Mat picture = picture_of(board), part = picture(cv::Rect(0, 0, 639, 512));
    ASSERT_EQ(r.look(picture), kSuccess);
    const std::vector<cv::Point2f> before = r.points;
    EXPECT_EQ(r.look(part), kImageSizeChanged);
    EXPECT_EQ(r.points, before);
    EXPECT_EQ(r.image_size(), cv::Size(640, 512));
    ASSERT_TRUE(r.set(board));
    EXPECT_EQ(r.look(part), kSuccess);
}

TEST(Recognizer, WhateverIsNoGreyPictureOfABoardIsACodeAndWritesNothing)
{
    const Board board = board_photos::coarse_board();
    const cv::Mat picture = picture_of(board);
    Korva r;
    r.points = { { 1, 2 } };
    EXPECT_EQ(r.look(picture), kBaseMarkerClassify); // no geometry yet
    cv::Mat noise(300, 300, CV_8U);
    cv::randu(noise, 0, 256);
    for (const cv::Mat& image :
        { cv::Mat(), cv::Mat(20, 20, CV_8UC3, cv::Scalar::all(0)), cv::Mat(20, 20, CV_16U, cv::Scalar(0)),
            cv::Mat(1, 1, CV_8U), cv::Mat(1, 32767, CV_8U, cv::Scalar(0)), noise }) {
        ASSERT_TRUE(r.set(board));
        EXPECT_EQ(r.look(image), kFewContours) << image.size();
    }
    PreProcParam pre;
    pre.binarize_mode = 3;
    ASSERT_TRUE(r.set(board, pre));
    EXPECT_EQ(r.look(picture), kFewContours);
    pre.binarize_mode = kAdaptiveMean;
    pre.threshold = 4;
    ASSERT_TRUE(r.set(board, pre));
    EXPECT_THROW(r.look(picture), cv::Exception);

    for (const cv::Point origin : { cv::Point(-1, 0), { 11, 0 }, { 0, -1 }, { INT_MAX, INT_MIN } }) {
        Board outside = board;
        outside.layout.origin_x = origin.x;
        outside.layout.origin_y = origin.y;
        ASSERT_TRUE(r.set(outside));
        EXPECT_EQ(r.look(picture), kBaseMarkerClassify) << origin;
    }
    EXPECT_EQ(r.points, (std::vector<cv::Point2f> { { 1, 2 } }));
}

TEST(Recognizer, DrawingAQuarterOfAMillionContoursEnds) // after hours, when each contour looks at all
{
    Board plain = board_photos::coarse_board();
    plain.rings.clear();
    cv::Mat picture = picture_of(plain);
    cv::copyMakeBorder(picture, picture, 0, 1500, 0, 1500, cv::BORDER_CONSTANT, cv::Scalar(255));
    for (int y = picture.rows - 1500; y < picture.rows; y += 3)
        for (int x = picture.cols - 1500; x < picture.cols; x += 3)
            picture.at<uchar>(y, x) = 0;
    Korva r;
    ASSERT_TRUE(r.set(plain));
    ASSERT_EQ(r.look(picture), kBaseMarkerNotFound);
    EXPECT_EQ(r.drawn(3).at<cv::Vec3b>(picture.rows - 750, picture.cols - 749), cv::Vec3b(255, 215, 128));
}

TEST(Recognizer, PicturesBelongToHowTheLastRecognitionEnded)
{
    const Board board = board_photos::coarse_board();
    Board plain = board;
    plain.rings.clear();
    Korva r;
    ASSERT_TRUE(r.set(board));
    EXPECT_TRUE(r.drawn(-1).empty());
    const cv::Mat picture = picture_of(board);
    ASSERT_EQ(r.look(picture), kSuccess);
    for (const int kind : { 0, 2, 3, 4, 5 }) {
        EXPECT_EQ(r.drawn(kind).size(), picture.size());
        EXPECT_EQ(r.drawn(kind).channels(), kind == 2 ? 1 : 3);
    }
    EXPECT_EQ(cv::norm(r.drawn(-1), r.drawn(0)), 0);
    for (const int kind : { 1, 6, -2, INT_MIN })
        EXPECT_TRUE(r.drawn(kind).empty()) << kind;
    ASSERT_EQ(r.look(picture_of(plain)), kBaseMarkerNotFound);
    EXPECT_EQ(cv::norm(r.drawn(-1), r.drawn(3)), 0);
    EXPECT_TRUE(r.drawn(0).empty()) << "this recognition numbered nothing";

    const Folder folder;
    r.save_result_image(folder / "circles.png", -1);
    EXPECT_EQ(cv::norm(cv::imread(folder / "circles.png"), r.drawn(3)), 0);
    for (const char* bad : { "none", "unknown.xyz", "no/such/folder/a.png", "" })
        r.save_result_image(folder / bad, -1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 1);
}

TEST(Recognizer, WindowsOfADebugScaleChangeNoResultAndAreTextWithoutADisplay)
{
    const Board board = board_photos::coarse_board();
    cv::Mat picture = picture_of(board);
    Korva r;
    ASSERT_TRUE(r.set(board));
    ASSERT_EQ(r.look(picture), kSuccess);
    const std::vector<cv::Point2f> expected = r.points;
    const Folder folder;
    // Binary, circles, grid and numbers; a scale that leaves no pixel or too many opens none.
    for (const auto& [scale, windows] : { std::pair(0.5, 4), { 1e-9, 0 }, { 1e9, 0 }, { -1.0, 0 }, { NAN, 0 } }) {
        ASSERT_TRUE(r.set(board.param(), {}, scale));
        NoDisplay no_display;
        EXPECT_EQ(r.look(picture), kSuccess);
        r.debug_show(picture, folder / std::to_string(windows), true);
        EXPECT_TRUE(no_display.said("No display for the window", windows == 0 ? 0 : windows + 1)) << scale;
        EXPECT_EQ(r.points, expected);
    }
    EXPECT_EQ(cv::imread(folder / "4.pgm", cv::IMREAD_UNCHANGED).size(), cv::Size(320, 256));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder / ""), {}), 1);
    NoDisplay no_display;
    r.show_result_image(-1);
    r.show_result_image(1); // no such picture
    EXPECT_TRUE(no_display.said("No display for the window", 1));
}

TEST(Recognizer, ErrorNamesAreThoseOfTheLayoutAndCanBeAskedFromManyThreads)
{
    Korva korva;
    ZEPHCalibBoardRecognizer zeph;
    const char* names[] = { "Success", "ImageSize_Changed", "Few_Contours", "BaseMarker_NotFound",
        "N_BaseMarker_NotMatch", "BaseMarker_ClassifyFailure" };
    for (int code = 0; code < 6; ++code) {
        EXPECT_EQ(korva.get_error_name(code), names[code]);
        EXPECT_EQ(zeph.get_error_name(code), code < 5 ? names[code] : "");
    }
#pragma omp parallel for num_threads(4) // the sanitizer watches
    for (int code = 6; code < 500; ++code)
        EXPECT_EQ(korva.get_error_name(code), "");
}

/// Opens ZEPH's steps.
struct Zeph : ZEPHCalibBoardRecognizer {
    using CalibBoardRecognizer::direction;
    using ConnectionFinder::base_markers;
    using ConnectionFinder::connections;
    using ConnectionFinder::contours;
    using ConnectionFinder::ellipses;
    using ZEPHCalibBoardRecognizer::basemarker_process;
    using ZEPHCalibBoardRecognizer::set_direction;
};

TEST(Zeph, TheRingTakesTheMeanAxesAndTheLastNeighbourTheXAxis)
{
    Zeph z;
    z.ellipses.resize(5);
    z.contours = { Contour(20), Contour(30), Contour(1), Contour(1), Contour(1) };
    for (int axis = 0; axis < 2; ++axis) {
        z.ellipses[0].full_axes[axis] = 6 + axis;
        z.ellipses[1].full_axes[axis] = 10.1 + axis;
    }
    std::vector<int> state(5, 1);
    EXPECT_EQ(z.basemarker_process(0, 1, state), 1);
    EXPECT_EQ(state, (std::vector<int> { 0, 2, 1, 1, 1 }));
    EXPECT_EQ(z.ellipses[1].full_axes[0], static_cast<float>(16.1) * 0.5);
    EXPECT_EQ(z.ellipses[1].full_axes[1], static_cast<float>(18.1) * 0.5);

    z.base_markers = { 0 };
    z.ellipses[0].center = { 0, 0 };
    z.ellipses[1].center = { 10, 0 };
    z.ellipses[2].center = { -11, 1 };
    z.ellipses[3].center = { 0, -12 };
    z.connections.assign(5, ConnectionFinder::Neighbours { 1, 2, -1, 3 });
    z.set_direction();
    EXPECT_NEAR(z.direction(1, 0), -11 / std::hypot(11, 1), 1e-6);
    EXPECT_EQ(cv::Point2f(z.direction(0, 0), z.direction(0, 1)), cv::Point2f(0, -1));
    z.connections[0] = { 2, -1, -1, -1 };
    z.set_direction();
    EXPECT_EQ(z.direction.row(0), z.direction.row(1));
    const cv::Matx22f before = z.direction;
    z.connections[0] = { -1, -1, -1, -1 };
    z.set_direction();
    EXPECT_EQ(z.direction, before);
}

TEST(Zeph, OneRingIsRecognisedAndTwoAreRefused)
{
    Board board = board_photos::coarse_board();
    PreProcParam pre;
    CircleMarkerParam circle = board_photos::marker_settings();
    CalibBoardParam param = board.param();
    Zeph z;
    ASSERT_TRUE(z.set_parameters(pre, circle, param));
    std::vector<cv::Point2f> points;
    board.rings = { { 0, 0 } };
    cv::Mat one = picture_of(board);
    EXPECT_EQ(z.recognize(one, points), kSuccess);
    const cv::Point2f origin = points[static_cast<size_t>(z.get_marker_index({ 0, 0 }))];
    EXPECT_EQ(origin, cv::Point2f(z.ellipses[static_cast<size_t>(z.base_markers[0])].center));
    board.rings = { { 0, 0 }, { 2, 0 } };
    cv::Mat two = picture_of(board);
    EXPECT_EQ(z.recognize(two, points), kBaseMarkerCount);
}

TEST(RealPhotos, PlainGridsEndWithoutBaseMarkersAndEveryCircleOfTheRegularOnesIsKept)
{
    const std::filesystem::path folder = VEXO_SOURCE_DIR "/../shared/realdata/circle_boards";
    if (!std::filesystem::exists(folder)) GTEST_SKIP() << "no photos here";
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
        const cv::Mat photo = cv::imread(entry.path().string(), cv::IMREAD_GRAYSCALE);
        if (photo.empty()) continue;
        Korva r;
        ASSERT_TRUE(r.set(board_photos::coarse_board()));
        EXPECT_EQ(r.look(photo), kBaseMarkerNotFound) << entry.path();
        const bool regular = entry.path().parent_path().filename() == "regular";
        EXPECT_EQ(r.ellipses.size(), regular ? 80U : 336U) << entry.path();
    }
}

} // namespace
} // namespace vexo
