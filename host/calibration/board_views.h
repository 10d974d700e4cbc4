#pragma once

#include "base/on_step.h"
#include "host/calibration/board_file.h"
#include "host/calibration/board_search.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// Pictures of a calibration board: which there are, which belong together, and what is recognised in them.
namespace vexo {

/// One picture of the board.
struct BoardPicture {
    std::string path;
    std::string name; ///< of the file, without its folder
    int number = 0;   ///< in the name
    int camera = 0;
    cv::Size size;
    int code = -1;                      ///< of the recogniser; 0: recognised
    std::string reason;                 ///< the code's name and what it means; empty for 0
    SearchStep step = SearchStep::none; ///< that recognised it
    int found = 0;                      ///< markers
    std::vector<cv::Point2f> markers;   ///< by board position; (FLT_MAX, FLT_MAX) where there is none
    std::vector<double> sigma;          ///< px, of refined markers' coordinates, by board position; empty: not refined
    std::vector<unsigned char> drawing; ///< JPEG, how the recognition ended; small, since many pictures are kept

    bool recognised() const { return code == 0; }
};

/// Views of the board: entry k of both lists is one moment.
struct BoardViews {
    std::vector<std::vector<BoardPicture>> cameras; ///< one list for a single camera, two of equal length for a pair
    std::size_t count() const { return cameras.front().size(); }
    bool pair() const { return cameras.size() == 2; }
    /// Whether any view was recognised by all cameras.
    bool any_good() const;
    /// Recognised by all cameras.
    bool good(std::size_t view) const;
};

/// Finds the pictures. `cam1` empty: one camera. Pictures of a pair belong together when the numbers in their names
/// are equal; Failure lists those without a partner.
/// @param dropped  numbers of views to leave out; Failure for one that no picture has
BoardViews find_views(const std::string& cam0, const std::string& cam1, const std::vector<int>& dropped);

/// Reads every picture and recognises the board in it; a step is a picture. Throws Failure and Stopped.
void recognise(BoardViews& views, const BoardFile& board, const OnStep& on_step = {});

/// "found 285 of 285 markers (enlarged and sharpened)", or the reason.
std::string outcome(const BoardPicture& picture, const BoardFile& board);

/// The drawing as a picture, BGR.
cv::Mat decoded_drawing(const BoardPicture& picture);

} // namespace vexo
