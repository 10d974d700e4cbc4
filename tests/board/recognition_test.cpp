// The whole way from a picture of a board to numbered markers, against photos of the virtual rig with known truth.

#include "board/opened_recognizer.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <random>

namespace vexo {
namespace {

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
    int width;
    double nearest_mm, farthest_mm, tilt_deg;
    Light light;
    PreProcParam pre;
    int views, least;
};

/// Recognises random views and returns how many came back, each rightly numbered.
int recognised(const Series& s)
{
    board_photos::Photographer& camera = camera_of(s.width);
    Korva recognizer;
    EXPECT_TRUE(recognizer.set(s.board, s.pre));
    std::mt19937 rng(11);
    const auto draw = [&rng](double a, double b) { return std::uniform_real_distribution<double>(a, b)(rng); };
    int good = 0;
    for (int i = 0; i < s.views; ++i) {
        const double tilt = draw(0, s.tilt_deg) * CV_PI / 180, way = draw(0, 2 * CV_PI), turn = draw(0, 2 * CV_PI);
        const cv::Vec3d middle(draw(-25, 25), draw(-15, 15), draw(s.nearest_mm, s.farthest_mm));
        const Pose pose = board_photos::view(s.board, tilt, way, turn, middle);
        if (recognizer.look(camera.photo(s.board, pose, s.light, i)) != kSuccess) continue;
        EXPECT_EQ(wrongly_numbered(recognizer.points, camera.centres(s.board, pose)), 0) << "view " << i;
        ++good;
    }
    return good;
}

TEST(Recognition, RandomViewsUpTo45DegreesComeBackAndAreNeverWronglyNumbered)
{
    const Board fine, coarse = board_photos::coarse_board();
    PreProcParam adaptive;
    adaptive.binarize_mode = kAdaptiveMean;
    adaptive.threshold = 101;
    adaptive.C = 5;
    const Light plain, blurred { 2.5 }, noisy { 0.6, 6 }, uneven { 0.6, 1, 3 };
    // The limit is the hole of a ring: its smaller semi-axis must stay above 4 px.
    const Series series[] = {
        { fine, 1280, 450, 600, 45, plain, {}, 12, 12 },
        { coarse, 640, 420, 480, 45, plain, {}, 40, 39 },
        { coarse, 1280, 450, 600, 60, plain, {}, 6, 6 },
        { coarse, 1280, 450, 600, 45, blurred, {}, 6, 6 },
        { coarse, 640, 420, 480, 45, noisy, {}, 12, 11 },
        { coarse, 640, 420, 480, 45, uneven, adaptive, 12, 11 },
    };
    for (const Series& s : series)
        EXPECT_GE(recognised(s), s.least) << s.board.layout.columns << " columns, tilt to " << s.tilt_deg << ", blur "
                                          << s.light.blur_px << ", noise " << s.light.noise;
}

TEST(Recognition, BoardsThatAreNotTheRightOneEndWithTheirCode)
{
    const Board right = board_photos::coarse_board();
    Board mirrored = right, four = right, two = right, adjacent = right, none = right, few = right, bright = right;
    mirrored.mirrored = true;
    four.rings.emplace_back(-3, -3);
    two.rings.pop_back();
    adjacent.rings = { { 0, 0 }, { 1, 0 }, { 0, 1 } };
    none.rings.clear();
    few.layout.columns = 2;
    few.layout.rows = 3;
    few.layout.origin_x = few.layout.origin_y = 1;
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
    for (const auto& [board, code] : cases)
        EXPECT_EQ(recognizer.look(picture_of(board)), code) << recognizer.get_error_name(code);
    PreProcParam invert;
    invert.invert = true;
    ASSERT_TRUE(recognizer.set(right, invert));
    EXPECT_EQ(recognizer.look(255 - picture_of(right)), kSuccess);
    EXPECT_EQ(wrongly_numbered(recognizer.points, camera_of(640).centres(right, frontal(right))), 0);
}

TEST(Recognition, AMarkerThatIsCoveredIsMissingAndTheOthersKeepTheirPlaces)
{
    Board board = board_photos::coarse_board();
    board.covered = { { 1, 2 }, { -4, 4 }, { 5, 0 }, { -2, -1 } };
    Korva recognizer;
    ASSERT_TRUE(recognizer.set(board));
    ASSERT_EQ(recognizer.look(picture_of(board)), kSuccess);
    const std::vector<cv::Point2f>& found = recognizer.points;
    EXPECT_EQ(wrongly_numbered(found, camera_of(640).centres(board, frontal(board))), 0);
    for (const cv::Point at : board.covered)
        EXPECT_EQ(found[static_cast<size_t>(recognizer.get_marker_index(at))].x, FLT_MAX);
    EXPECT_EQ(std::count(found.begin(), found.end(), cv::Point2f(FLT_MAX, FLT_MAX)), 4);
}

TEST(Recognition, TheWalkIsThatOfTheRecursionOnAnyGraph)
{
    std::mt19937 rng(5);
    for (int round = 0; round < 200; ++round) {
        Korva r;
        ASSERT_TRUE(r.set(Board()));
        const int n = 2 + static_cast<int>(rng() % 300);
        for (int i = 0; i < n; ++i) {
            r.ellipses.emplace_back();
            r.ellipses.back().center = { static_cast<double>(rng() % 40), static_cast<double>(rng() % 40) };
            const auto any = [&] { return static_cast<int>(rng() % static_cast<unsigned>(n + 1)) - 1; };
            r.connections.push_back({ any(), any(), any(), any() });
        }
        const int start = static_cast<int>(rng() % 285);
        std::vector<int> expected(285, -1), walked(285, -1);
        r.points.resize(285);
        r.walk_recursively(0, start, expected);
        r.numbering(0, start, r.points, walked);
        ASSERT_EQ(walked, expected) << "round " << round;
    }
}

TEST(Recognition, BaseMarkersThatWereDroppedByAnotherPairFailWithoutHarm)
{
    Korva r;
    ASSERT_TRUE(r.set(Board()));
    r.ellipses.resize(4);
    r.connections.assign(4, ConnectionFinder::Neighbours {});
    for (auto& neighbours : r.connections)
        neighbours.fill(ConnectionFinder::dropped);
    r.connections[0] = { 1, 2, -1, -1 };
    r.base_markers = { 0, 1, 2 };
    int o = 0, x = 0, y = 0;
    EXPECT_FALSE(r.init_numbering(o, x, y));
}

} // namespace
} // namespace vexo
