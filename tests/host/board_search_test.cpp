#include "host/calibration/board_views.h"
#include "host/calibration/stray_markers.h"
#include "support/board_photos.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include <cfloat>
#include <numeric>

namespace {

using namespace vexo;
using namespace board_photos;

BoardFile file_of(const Board& board)
{
    BoardFile file;
    file.layout = board.layout;
    return file;
}

TEST(BoardSearch, FindsSmallSoftNoisyAndUnevenlyLitBoardsEachByTheStepThatIsMadeForIt)
{
    struct Case {
        Board board;
        double hole_px, tilt;
        Light light;
        SearchStep step;
        double limit_px;
    };
    // What binarised contours give: 0.3 px where the picture is sharp; light that falls off by half within a marker
    // moves its threshold, too, and the outlines of soft, noisy discs waver.
    const Case cases[] = { { Board(), 3.5, 0.3, { 0.6, 1.6, 1.5 }, SearchStep::small_rings, 0.3 },
        { Board(), 2.3, 0.3, { 0.6, 1.6, 1.5 }, SearchStep::enlarged, 0.3 },
        { coarse_board(), 7.0, 0.5, { 1.0, 1.6, 40.0 }, SearchStep::adaptive, 1.0 },
        { coarse_board(), 7.0, 0.5, { 3.0, 6.0, 1.5 }, SearchStep::smoothed, 0.7 } };
    Photographer photographer({ 640, 512 }, 701);
    for (const Case& c : cases) {
        const double distance = 701 * 0.5 * c.board.layout.hole_mm / c.hole_px;
        const Pose pose = view(c.board, c.tilt, 0.8, 0.2, { 4, 3, distance });
        const BoardSearchResult found = BoardSearch(file_of(c.board)).find(photographer.photo(c.board, pose, c.light));
        EXPECT_STREQ(name_of(found.step), name_of(c.step));
        const std::vector<cv::Point2d> truth = photographer.centres(c.board, pose);
        ASSERT_EQ(found.markers.size(), truth.size()) << name_of(c.step);
        EXPECT_EQ(std::count(found.markers.begin(), found.markers.end(), cv::Point2f(FLT_MAX, FLT_MAX)), 0);
        for (std::size_t i = 0; i < truth.size(); ++i)
            EXPECT_LT(cv::norm(cv::Point2d(found.markers[i]) - truth[i]), c.limit_px) << name_of(c.step) << ' ' << i;
    }
}

TEST(BoardSearch, SaysOfPicturesWhichStepFoundTheBoardOrWhyTheFirstDidNot)
{
    const Board board;
    Photographer photographer({ 640, 512 }, 701);
    Board covered = board;
    covered.covered = board.rings;
    const Pose far = view(board, 0.3, 0.8, 0.2, { 4, 3, 701 * 2.88 / 2.3 }), near = view(board, 0, 0, 0, { 0, 0, 330 });
    const cv::Mat wall(512, 640, CV_8U, cv::Scalar(120));
    const Folder folder;
    const cv::Mat photos[] = { photographer.photo(board, far), photographer.photo(covered, near), wall,
        photographer.photo(board, near)(cv::Rect(0, 0, 638, 512)) };
    for (std::size_t i = 0; i < 4; ++i)
        cv::imwrite(folder / (std::to_string(i) + ".png"), photos[i]);
    BoardViews views = find_views(folder / "", "", {});
    recognise(views, file_of(board));
    const std::vector<BoardPicture>& seen = views.cameras[0];
    EXPECT_EQ(outcome(seen[0], file_of(board)), "found 285 of 285 markers (enlarged and sharpened)");
    const char* const names[] = { "", "BaseMarker_NotFound", "Few_Contours", "ImageSize_Changed" };
    for (std::size_t i = 1; i < 4; ++i) { // the last would be found by a step that has seen no other size yet
        EXPECT_FALSE(seen[i].recognised()) << i;
        EXPECT_EQ(seen[i].reason.rfind(names[i], 0), 0U) << seen[i].reason;
        EXPECT_EQ(seen[i].reason.find("2.0 px") == std::string::npos, i == 3) << seen[i].reason;
        EXPECT_EQ(seen[i].step, SearchStep::none);
    }
}

TEST(BoardSearch, RemovesMarkersThatWereNumberedRoundTheRimAndNoOthersAtTheSteepestSlant)
{
    const Board board;
    const Photographer photographer({ 640, 512 }, 701);
    const std::vector<cv::Point2d> centres = photographer.centres(board, view(board, 1.05, 0.8, 0.2, { 4, 3, 500 }));
    std::vector<cv::Point2f> markers(centres.begin(), centres.end());
    markers[40] = { FLT_MAX, FLT_MAX };
    std::vector<cv::Point2f> expected = markers;
    remove_strays(markers, file_of(board));
    EXPECT_EQ(markers, expected);
    const auto rows = static_cast<std::size_t>(board.layout.rows);
    for (std::size_t i = 3 * rows; i < 8 * rows; i += rows) { // neighbours of one another, beyond the last row
        markers[i] = markers[i - 1] * 2 - markers[i - 2];
        expected[i] = { FLT_MAX, FLT_MAX };
    }
    remove_strays(markers, file_of(board));
    EXPECT_EQ(markers, expected);
}

} // namespace
