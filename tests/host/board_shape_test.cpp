#include "base/failure.h"
#include "host/calibration/board_heights.h"
#include "host/calibration/calibrate.h"
#include "support/folder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace vexo;

BoardFile bent_board()
{
    BoardFile board;
    board.shape = { -0.08, 0.01, -0.07, 1e-3, -2e-4 };
    return board;
}

TEST(BoardShape, IsReadAsItWasWrittenAndABoardWithoutOneHasNoneOfItsKeys)
{
    const Folder folder;
    const std::string path = folder / "board.yaml";
    const std::string text = board_yaml(bent_board());
    put(path, text);
    const BoardFile read = load_board(path);
    EXPECT_EQ(board_yaml(read), text);
    EXPECT_EQ(board_point(read, 17), board_point(bent_board(), 17));
    const std::string flat = board_yaml(BoardFile());
    for (const char* key : { "bow_xx", "bow_xy", "bow_yy", "stretch_y", "shear" })
        EXPECT_EQ(flat.find(key), std::string::npos) << key;
    for (const char* bad : { "bow_xx: 21", "bow_yy: -21", "stretch_y: 0.2", "shear: -0.2", "bow_xy: .Nan", "bow: 1" }) {
        put(path, flat + bad + "\n");
        EXPECT_THROW(load_board(path), Failure) << bad;
    }
}

TEST(BoardShape, PutsMarkersWhereTheFormulaSaysAndIsFlatWhereOnlyStretched)
{
    const BoardShape shape = bent_board().shape;
    const cv::Point3d p = shape.at({ 100.0, -50.0 });
    EXPECT_DOUBLE_EQ(p.x, 100.0 + 2e-4 * 50.0);
    EXPECT_DOUBLE_EQ(p.y, -50.0 * 1.001);
    EXPECT_NEAR(p.z, -0.08 + 0.01 * -0.5 - 0.07 * 0.25, 1e-12);
    BoardFile board;
    board.shape.stretch_y = 0.01;
    EXPECT_LT(heights_of(board).range_mm, 1e-6);
    board.shape.bow_xx = -0.1; // over +-9 pitches of 12 mm, off the best plane: 0.1 (1.08)^2
    EXPECT_NEAR(heights_of(board).range_mm, 0.1 * 1.08 * 1.08, 1e-4);
}

TEST(BoardShape, LetsBothRulersSetThePitchUntilItKnowsByHowMuchYDiffers)
{
    struct Case {
        double x, y, of_plain, of_bent;
    };
    for (const Case& c : { Case { 99, 99.2, 0.991, 0.99 }, Case { 99, 0, 0.99, 0.99 },
             Case { 0, 99.2, 0.992, 0.992 / 1.001 }, Case { 0, 0, 1, 1 } }) {
        CalibrateRequest request;
        request.ruler_x = c.x;
        request.ruler_y = c.y;
        EXPECT_NEAR(corrected_board(BoardFile(), request).layout.pitch_mm, 12 * c.of_plain, 1e-12) << c.x << ' ' << c.y;
        EXPECT_NEAR(corrected_board(bent_board(), request).layout.pitch_mm, 12 * c.of_bent, 1e-12) << c.x << ' ' << c.y;
    }
}

} // namespace
