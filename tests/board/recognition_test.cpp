// The whole way from a picture of a board to numbered markers, against rendered pictures with known truth.

#include "board/KorvaCalibBoardRecognizer.h"
#include "board/ZEPHCalibBoardRecognizer.h"
#include "support/board_image.h"
#include "support/no_display.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <cfloat>
#include <filesystem>
#include <limits>
#include <random>
#include <thread>

namespace vexo {
namespace {

using board_image::Board;
using board_image::Camera;
using board_image::Light;
using board_image::Pose;
using board_image::Renderer;

/// Opens what the walk and the classification work on.
struct Korva : KORVACalibBoardRecognizer {
    using CalibBoardRecognizer::board_points;
    using CalibBoardRecognizer::numbering;
    using CircleMarkerSearcher::debug_show;
    using ConnectionFinder::base_markers;
    using ConnectionFinder::connections;
    using ConnectionFinder::contours;
    using ConnectionFinder::ellipses;
    using KORVACalibBoardRecognizer::init_numbering;

    bool set(const Board& board, PreProcParam pre = {})
    {
        CircleMarkerParam circle = board_image::marker_settings();
        CalibBoardParam param = board.param;
        return set_parameters(pre, circle, param);
    }

    int next_index(int marker, int neighbour, int index) const // the step of the walk, as its definition has it
    {
        const auto m = static_cast<size_t>(marker), q = static_cast<size_t>(neighbour);
        const cv::Point2d d = ellipses[q].center - ellipses[m].center;
        const double length = std::sqrt(d.x * d.x + d.y * d.y);
        const auto ux = static_cast<float>(static_cast<float>(d.x) / length);
        const auto uy = static_cast<float>(static_cast<float>(d.y) / length);
        const float a = direction(0, 0) * ux + direction(0, 1) * uy;
        const float b = direction(1, 0) * ux + direction(1, 1) * uy;
        if (std::abs(a) > std::abs(b)) return index + (a >= 0 ? -board_param.rows : board_param.rows);
        return index + (b >= 0 ? -1 : 1);
    }

    void walk_recursively(int m, int k, std::vector<int>& marker_of_index) const
    {
        marker_of_index[static_cast<size_t>(k)] = m;
        for (const int q : connections[static_cast<size_t>(m)]) {
            if (q == -1) continue;
            const int next = next_index(m, q, k);
            if (next < 0 || next >= marker_count || marker_of_index[static_cast<size_t>(next)] != -1) continue;
            walk_recursively(q, next, marker_of_index);
        }
    }
};

const Renderer& camera_of(cv::Size size)
{
    static const Renderer full { Camera() };
    static const Renderer half { Camera { { 640, 512 }, 701, 701, 322, 254 } };
    return size.width == 1280 ? full : half;
}

/// Number of numbered markers that lie farther than half of a marker's radius, 3 px, from the truth.
int wrongly_numbered(const std::vector<cv::Point2f>& points, const std::vector<cv::Point2d>& truth)
{
    int wrong = 0;
    for (size_t k = 0; k < points.size(); ++k)
        if (points[k].x != FLT_MAX && !(std::hypot(points[k].x - truth[k].x, points[k].y - truth[k].y) < 3)) ++wrong;
    return wrong;
}

struct Series {
    Board board;
    cv::Size size;
    double nearest_mm, farthest_mm, tilt_deg;
    Light light;
    PreProcParam pre;
    int views, least;
};

/// Recognises random views and returns how many came back, each rightly numbered.
int recognised(const Series& s)
{
    const Renderer& renderer = camera_of(s.size);
    Korva recognizer;
    EXPECT_TRUE(recognizer.set(s.board, s.pre));
    std::mt19937 rng(11);
    const auto draw = [&rng](double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng); };
    int good = 0;
    for (int i = 0; i < s.views; ++i) {
        const double tilt = draw(0, s.tilt_deg) * CV_PI / 180, way = draw(0, 2 * CV_PI), turn = draw(0, 2 * CV_PI);
        const cv::Vec3d middle(draw(-25, 25), draw(-15, 15), draw(s.nearest_mm, s.farthest_mm));
        const Pose pose = board_image::view(s.board, tilt, way, turn, middle);
        cv::Mat picture = renderer.render(s.board, pose, s.light, i);
        std::vector<cv::Point2f> points;
        if (recognizer.recognize(picture, points) != kSuccess) continue;
        const std::vector<cv::Point2d> truth = renderer.centres(s.board, pose);
        EXPECT_EQ(wrongly_numbered(points, truth), 0) << "view " << i;
        ++good;
    }
    return good;
}

TEST(Recognition, RandomViewsUpTo45DegreesComeBackAndAreNeverWronglyNumbered)
{
    const Board fine = board_image::default_board(), coarse = board_image::coarse_board();
    PreProcParam adaptive;
    adaptive.binarize_mode = kAdaptiveMean;
    adaptive.threshold = 101;
    adaptive.C = 5;
    const Light plain, blurred { 2.5 }, noisy { 0.6, 6 }, uneven { 0.6, 1, 3 };
    // The limit is the hole of a ring: its smaller semi-axis must stay above 4 px.
    const Series series[] = {
        { fine, { 1280, 1024 }, 450, 600, 45, plain, {}, 12, 12 },
        { coarse, { 640, 512 }, 420, 480, 45, plain, {}, 40, 39 },
        { coarse, { 1280, 1024 }, 450, 600, 60, plain, {}, 6, 6 },
        { coarse, { 1280, 1024 }, 450, 600, 45, blurred, {}, 6, 6 },
        { coarse, { 640, 512 }, 420, 480, 45, noisy, {}, 12, 11 },
        { coarse, { 640, 512 }, 420, 480, 45, uneven, adaptive, 12, 11 },
    };
    for (const Series& s : series)
        EXPECT_GE(recognised(s), s.least) << s.board.param.columns << " columns, tilt to " << s.tilt_deg << ", blur "
                                          << s.light.blur_px << ", noise " << s.light.noise;
}

Pose frontal(const Board& board)
{
    return board_image::view(board, 0.3, 0.5, 0.2, { 0, 0, 500 });
}

cv::Mat picture_of(const Board& board)
{
    return camera_of({ 640, 512 }).render(board, frontal(board), Light(), 1);
}

TEST(Recognition, BoardsThatAreNotTheRightOneEndWithTheirCode)
{
    const Board right = board_image::coarse_board();
    Board mirrored = right, four = right, two = right, adjacent = right, none = right, few = right, bright = right;
    mirrored.mirrored = true;
    four.rings.emplace_back(-3, -3);
    two.rings.pop_back();
    adjacent.rings = { { 0, 0 }, { 1, 0 }, { 0, 1 } };
    none.rings.clear();
    few.param.columns = 2;
    few.param.rows = 3;
    few.param.origin_x = few.param.origin_y = 1;
    const std::pair<Board, int> cases[] = {
        { right, kSuccess },
        { mirrored, kBaseMarkerClassify },
        { four, kBaseMarkerCount },
        { two, kBaseMarkerCount },
        { adjacent, kBaseMarkerClassify },
        { none, kBaseMarkerNotFound },
        { few, kFewContours },
    };
    Korva recognizer;
    ASSERT_TRUE(recognizer.set(right));
    for (const auto& [board, code] : cases) {
        cv::Mat picture = picture_of(board);
        std::vector<cv::Point2f> points;
        EXPECT_EQ(recognizer.recognize(picture, points), code) << recognizer.get_error_name(code);
    }
    PreProcParam invert;
    invert.invert = true;
    ASSERT_TRUE(recognizer.set(right, invert));
    cv::Mat negative = 255 - picture_of(right);
    std::vector<cv::Point2f> points;
    EXPECT_EQ(recognizer.recognize(negative, points), kSuccess);
    EXPECT_EQ(wrongly_numbered(points, camera_of({ 640, 512 }).centres(right, frontal(right))), 0);
}

TEST(Recognition, AMarkerThatIsCoveredIsMissingAndTheOthersKeepTheirPlaces)
{
    Board board = board_image::coarse_board();
    board.missing = { { 1, 2 }, { -4, 4 }, { 5, 0 }, { -2, -1 } };
    Korva recognizer;
    ASSERT_TRUE(recognizer.set(board));
    cv::Mat picture = picture_of(board);
    std::vector<cv::Point2f> points;
    ASSERT_EQ(recognizer.recognize(picture, points), kSuccess);
    EXPECT_EQ(wrongly_numbered(points, camera_of({ 640, 512 }).centres(board, frontal(board))), 0);
    for (const cv::Point at : board.missing)
        EXPECT_EQ(points[static_cast<size_t>(recognizer.get_marker_index(at))].x, FLT_MAX);
    EXPECT_EQ(std::count(points.begin(), points.end(), cv::Point2f(FLT_MAX, FLT_MAX)), 4);
}

TEST(Recognition, TheWalkIsThatOfTheRecursionOnAnyGraph)
{
    std::mt19937 rng(5);
    const Board board = board_image::default_board();
    for (int round = 0; round < 200; ++round) {
        Korva r;
        ASSERT_TRUE(r.set(board));
        const int n = 2 + static_cast<int>(rng() % 300);
        for (int i = 0; i < n; ++i) {
            r.ellipses.emplace_back();
            r.ellipses.back().center = { static_cast<double>(rng() % 40), static_cast<double>(rng() % 40) };
            const auto any = [&] { return static_cast<int>(rng() % static_cast<unsigned>(n + 1)) - 1; };
            r.connections.push_back({ any(), any(), any(), any() });
        }
        const int start = static_cast<int>(rng() % 285);
        std::vector<int> expected(285, -1), walked(285, -1);
        std::vector<cv::Point2f> points(285);
        r.walk_recursively(0, start, expected);
        r.numbering(0, start, points, walked);
        ASSERT_EQ(walked, expected) << "round " << round;
    }
}

TEST(Recognition, BaseMarkersThatWereDroppedByAnotherPairFailWithoutHarm)
{
    Korva r;
    ASSERT_TRUE(r.set(board_image::default_board()));
    r.ellipses.resize(4);
    r.connections.assign(4, ConnectionFinder::Neighbours {});
    for (auto& neighbours : r.connections)
        neighbours.fill(ConnectionFinder::dropped);
    r.connections[0] = { 1, 2, -1, -1 };
    r.base_markers = { 0, 1, 2 };
    int o = 0, x = 0, y = 0;
    EXPECT_FALSE(r.init_numbering(o, x, y));
}

TEST(Recognizer, BoardPointsFallAlongTheIndicesAndTheOriginHasItsIndex)
{
    Board board;
    board.param = { 10, 3, 2, 1, 0, 1.2 };
    Korva r;
    ASSERT_TRUE(r.set(board));
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
    const Board board = board_image::coarse_board();
    Korva r;
    ASSERT_TRUE(r.set(board));
    PreProcParam inverted;
    inverted.invert = true;
    constexpr double inf = std::numeric_limits<double>::infinity();
    const CalibBoardParam refused[] = { { 0, 5, 5, 0, 0, 9 }, { -1, 5, 5, 0, 0, 9 }, { std::nan(""), 5, 5, 0, 0, 9 },
        { inf, 5, 5, 0, 0, 9 }, { 1, 0, 5, 0, 0, 9 }, { 1, 5, -5, 0, 0, 9 }, { 1, 1000, 1001, 0, 0, 9 },
        { 1, 1 << 30, 1 << 30, 0, 0, 9 }, { 1e39, 5, 5, 0, 0, 9 }, { 1e-60, 5, 5, 0, 0, 9 } };
    for (const CalibBoardParam& param : refused) {
        Board bad;
        bad.param = param;
        EXPECT_FALSE(r.set(bad, inverted)) << param.pitch << " " << param.columns << " " << param.rows;
    }
    cv::Mat picture = picture_of(board);
    std::vector<cv::Point2f> points;
    EXPECT_EQ(r.recognize(picture, points), kSuccess);
    EXPECT_EQ(points.size(), 99U);
}

TEST(Recognizer, ImageSizeIsThatOfTheFirstImageUntilParametersAreSetAgain)
{
    const Board board = board_image::coarse_board();
    Korva r;
    ASSERT_TRUE(r.set(board));
    cv::Mat picture = picture_of(board), part = picture(cv::Rect(0, 0, 639, 512));
    std::vector<cv::Point2f> points;
    ASSERT_EQ(r.recognize(picture, points), kSuccess);
    EXPECT_EQ(r.image_size(), cv::Size(640, 512));
    const std::vector<cv::Point2f> before = points;
    EXPECT_EQ(r.recognize(part, points), kImageSizeChanged);
    EXPECT_EQ(points, before);
    EXPECT_EQ(r.image_size(), cv::Size(640, 512));
    ASSERT_TRUE(r.set(board));
    EXPECT_EQ(r.recognize(part, points), kSuccess);
}

TEST(Recognizer, WhateverIsNoGreyPictureOfABoardIsACodeAndWritesNothing)
{
    const Board board = board_image::coarse_board();
    cv::Mat picture = picture_of(board);
    const std::vector<cv::Point2f> mark = { { 1, 2 } };
    std::vector<cv::Point2f> points = mark;
    Korva r;
    EXPECT_EQ(r.recognize(picture, points), kBaseMarkerClassify); // no geometry yet
    ASSERT_TRUE(r.set(board));
    cv::Mat colour(20, 20, CV_8UC3, cv::Scalar::all(0)), deep(20, 20, CV_16U, cv::Scalar(0)), dot(1, 1, CV_8U);
    cv::Mat empty, wide(1, 32767, CV_8U, cv::Scalar(0));
    for (cv::Mat* image : { &empty, &colour, &deep, &dot, &wide })
        EXPECT_EQ(r.recognize(*image, points), kFewContours) << image->size();
    ASSERT_TRUE(r.set(board));
    cv::Mat noise(300, 300, CV_8U);
    cv::randu(noise, 0, 256);
    EXPECT_EQ(r.recognize(noise, points), kFewContours);

    PreProcParam pre;
    pre.binarize_mode = 3;
    ASSERT_TRUE(r.set(board, pre));
    EXPECT_EQ(r.recognize(picture, points), kFewContours);
    pre.binarize_mode = kAdaptiveMean;
    pre.threshold = 4;
    ASSERT_TRUE(r.set(board, pre));
    EXPECT_THROW(r.recognize(picture, points), cv::Exception);

    for (const cv::Point origin : { cv::Point(-1, 0), cv::Point(11, 0), cv::Point(0, -1),
             cv::Point(std::numeric_limits<int>::max(), std::numeric_limits<int>::min()) }) {
        Board outside = board;
        outside.param.origin_x = origin.x;
        outside.param.origin_y = origin.y;
        ASSERT_TRUE(r.set(outside));
        EXPECT_EQ(r.recognize(picture, points), kBaseMarkerClassify) << origin;
    }
    EXPECT_EQ(points, mark);
}

TEST(Recognizer, DrawingAQuarterOfAMillionContoursEnds) // after hours, when each contour looks at all
{
    Board plain = board_image::coarse_board();
    plain.rings.clear();
    cv::Mat picture = picture_of(plain), drawn;
    cv::copyMakeBorder(picture, picture, 0, 1500, 0, 1500, cv::BORDER_CONSTANT, cv::Scalar(255));
    for (int y = picture.rows - 1500; y < picture.rows; y += 3)
        for (int x = picture.cols - 1500; x < picture.cols; x += 3)
            picture.at<uchar>(y, x) = 0;
    Korva r;
    ASSERT_TRUE(r.set(plain));
    std::vector<cv::Point2f> points;
    ASSERT_EQ(r.recognize(picture, points), kBaseMarkerNotFound);
    r.copy_result_image(drawn, 3);
    EXPECT_EQ(drawn.at<cv::Vec3b>(picture.rows - 750, picture.cols - 749), cv::Vec3b(255, 215, 128));
}

TEST(Recognizer, PicturesBelongToHowTheLastRecognitionEnded)
{
    const Board board = board_image::coarse_board();
    Board plain = board;
    plain.rings.clear();
    Korva r;
    ASSERT_TRUE(r.set(board));
    cv::Mat untouched(3, 3, CV_8U, cv::Scalar(9));
    r.copy_result_image(untouched, -1);
    EXPECT_EQ(untouched.rows, 3);

    cv::Mat picture = picture_of(board), without_rings = picture_of(plain);
    std::vector<cv::Point2f> points;
    ASSERT_EQ(r.recognize(picture, points), kSuccess);
    cv::Mat last, of_kind;
    for (const int kind : { 0, 2, 3, 4, 5 }) {
        r.copy_result_image(of_kind, kind);
        EXPECT_EQ(of_kind.size(), picture.size());
        EXPECT_EQ(of_kind.channels(), kind == 2 ? 1 : 3);
    }
    r.copy_result_image(last, -1);
    r.copy_result_image(of_kind, 0);
    EXPECT_EQ(cv::norm(last, of_kind), 0);
    for (const int kind : { 1, 6, -2, std::numeric_limits<int>::min() }) {
        r.copy_result_image(untouched, kind);
        EXPECT_EQ(untouched.rows, 3) << kind;
    }
    ASSERT_EQ(r.recognize(without_rings, points), kBaseMarkerNotFound);
    r.copy_result_image(last, -1);
    r.copy_result_image(of_kind, 3);
    EXPECT_EQ(cv::norm(last, of_kind), 0);
    r.copy_result_image(untouched, 0); // this recognition numbered nothing
    EXPECT_EQ(untouched.rows, 3);

    const std::string folder = testing::TempDir() + "vexo_result_pictures/";
    std::filesystem::create_directories(folder);
    r.save_result_image(folder + "circles.png", -1);
    EXPECT_EQ(cv::norm(cv::imread(folder + "circles.png"), last), 0);
    for (const char* bad : { "none", "unknown.xyz", "no/such/folder/a.png", "" })
        r.save_result_image(folder + bad, -1);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
    std::filesystem::remove_all(folder);
}

TEST(Recognizer, WindowsOfADebugScaleChangeNoResultAndAreTextWithoutADisplay)
{
    const Board board = board_image::coarse_board();
    cv::Mat picture = picture_of(board);
    std::vector<cv::Point2f> expected, points;
    Korva r;
    ASSERT_TRUE(r.set(board));
    ASSERT_EQ(r.recognize(picture, expected), kSuccess);
    const std::string folder = testing::TempDir() + "vexo_windows/";
    std::filesystem::create_directories(folder);
    // Binary, circles, grid and numbers; a scale that leaves no pixel or too many opens none.
    for (const auto& [scale, windows] : { std::pair(0.5, 4), { 1e-9, 0 }, { 1e9, 0 }, { -1.0, 0 }, { NAN, 0 } }) {
        PreProcParam pre;
        CircleMarkerParam circle = board_image::marker_settings();
        CalibBoardParam param = board.param;
        circle.debug_scale = scale;
        ASSERT_TRUE(r.set_parameters(pre, circle, param));
        NoDisplay no_display;
        EXPECT_EQ(r.recognize(picture, points), kSuccess);
        r.debug_show(picture, folder + std::to_string(windows), true);
        EXPECT_TRUE(no_display.said("No display for the window", windows == 0 ? 0 : windows + 1)) << scale;
        EXPECT_EQ(points, expected);
    }
    EXPECT_EQ(cv::imread(folder + "4.pgm", cv::IMREAD_UNCHANGED).size(), cv::Size(320, 256));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
    std::filesystem::remove_all(folder);
    NoDisplay no_display;
    r.show_result_image(-1);
    r.show_result_image(1); // no such picture
    EXPECT_TRUE(no_display.said("No display for the window", 1));
}

TEST(Recognizer, ErrorNamesAreThoseOfTheLayoutAndCanBeAskedFromManyThreads)
{
    Korva korva;
    iCalibBoardRecognizer* zeph = new ZEPHCalibBoardRecognizer;
    const char* names[] = { "Success", "ImageSize_Changed", "Few_Contours", "BaseMarker_NotFound",
        "N_BaseMarker_NotMatch", "BaseMarker_ClassifyFailure" };
    for (int code = 0; code < 6; ++code) {
        EXPECT_EQ(korva.get_error_name(code), names[code]);
        EXPECT_EQ(zeph->get_error_name(code), code < 5 ? names[code] : "");
    }
    zeph->destroy();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&korva, t] {
            for (int code = 6; code < 500; ++code)
                EXPECT_EQ(korva.get_error_name(code * (t + 1)), "");
        });
    for (std::thread& thread : threads)
        thread.join();
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
    Board board = board_image::coarse_board();
    PreProcParam pre;
    CircleMarkerParam circle = board_image::marker_settings();
    Zeph z;
    ASSERT_TRUE(z.set_parameters(pre, circle, board.param));
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
        cv::Mat photo = cv::imread(entry.path().string(), cv::IMREAD_GRAYSCALE);
        if (photo.empty()) continue;
        Korva r;
        ASSERT_TRUE(r.set(board_image::coarse_board()));
        std::vector<cv::Point2f> points;
        EXPECT_EQ(r.recognize(photo, points), kBaseMarkerNotFound) << entry.path();
        const bool regular = entry.path().parent_path().filename() == "regular";
        EXPECT_EQ(r.ellipses.size(), regular ? 80U : 336U) << entry.path();
    }
}

} // namespace
} // namespace vexo
