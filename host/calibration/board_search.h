#pragma once

#include "host/calibration/board_file.h"
#include "vexo/board.h"
#include "vexo/owned.h"

#include <opencv2/core.hpp>

#include <array>
#include <string>
#include <vector>

namespace vexo {

/// How a board was recognised: the first of these that finds it.
enum class SearchStep {
    as_set,          ///< with the settings of the board's file
    small_rings,     ///< circles down to a radius of 2 px
    enlarged,        ///< that, in the picture at twice its size, sharpened: rings that are small and soft
    adaptive,        ///< small rings, and each pixel against the mean around it: light that falls off
    smoothed,        ///< enlarged, its noise smoothed before it is sharpened: rings that are soft and noisy
    strengthened,    ///< the same, sharpened more: rings whose holes the blur has closed
    fine,            ///< enlarged, sharpened finely, discs that look too small for their distance: small, steep boards
    by_other_camera, ///< not by itself: markers are where the pose that the other camera sees puts them
    none
};

/// In words: "as it is", "small rings", "enlarged and sharpened" ...; empty for none.
const char* name_of(SearchStep step);

/// What was recognised in one picture.
struct BoardSearchResult {
    SearchStep step = SearchStep::none;
    int code = -1;                    ///< of the recogniser; of the first attempt where no step finds the board
    std::vector<cv::Point2f> markers; ///< by board position, px of the picture; (FLT_MAX, FLT_MAX) where there is none
    cv::Mat drawing;                  ///< how the recognition ended, of the picture's size; may be empty
};

/// Recognises boards in pictures of one camera, and does not give a picture up before each of the steps was tried: a
/// photo that shows the board is lost for no other reason than where the binarisation cut its rings.
class BoardSearch {
public:
    /// Throws Failure for parameters that the library refuses.
    explicit BoardSearch(const BoardFile& board);

    /// A picture of another size than the first is refused by the first step, and not tried again.
    BoardSearchResult find(const cv::Mat& grey);

    /// The name of a code.
    std::string error_name(int code) const;

private:
    using Recogniser = Owned<iCalibBoardRecognizer>;

    bool _try(SearchStep step, cv::Mat picture, BoardSearchResult& result);

    BoardFile _board;
    std::array<Recogniser, 7> _recognisers; ///< by step: each holds to the size of its first picture
};

} // namespace vexo
