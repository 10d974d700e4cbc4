#include "host/calibration/board_search.h"

#include "base/failure.h"
#include "vexo/factories.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cfloat>

namespace vexo {

namespace {

constexpr double smallest_radius = 2.0; // px
constexpr double zoom = 2.0;

Owned<iCalibBoardRecognizer> make_recogniser(BoardFile board)
{
    Owned<iCalibBoardRecognizer> recogniser(CreateCalibBoardRecognizer());
    CalibBoardParam geometry = board.geometry();
    if (!recogniser || !recogniser->set_parameters(board.pre, board.circle, geometry))
        throw Failure("the library refuses this board's parameters");
    return recogniser;
}

BoardFile with_small_rings(BoardFile board)
{
    board.circle.min_radius = std::min(board.circle.min_radius, smallest_radius);
    return board;
}

BoardFile adaptive(BoardFile board)
{
    constexpr int mean_around = 2, block = 151; // px; above three diameters of most markers
    board.pre.binarize_mode = mean_around;
    board.pre.threshold = block;
    return board;
}

/// At twice the size, sharpened by an unsharp mask: 3 b - 2 Gauss(b).
cv::Mat enlarged(const cv::Mat& grey)
{
    constexpr double sigma = 6.0;
    cv::Mat large, soft, sharp;
    cv::resize(grey, large, {}, zoom, zoom, cv::INTER_CUBIC);
    cv::GaussianBlur(large, soft, {}, sigma);
    cv::addWeighted(large, 3.0, soft, -2.0, 0.0, sharp);
    return sharp;
}

/// Positions of the enlarged picture in the picture: the centres of pixels, not their corners, are whole numbers.
void take_back(BoardSearchResult& result, cv::Size size)
{
    constexpr auto scale = static_cast<float>(1.0 / zoom);
    for (cv::Point2f& p : result.markers)
        if (p.x != FLT_MAX) p = (p + cv::Point2f(0.5F, 0.5F)) * scale - cv::Point2f(0.5F, 0.5F);
    if (!result.drawing.empty()) cv::resize(result.drawing, result.drawing, size, 0, 0, cv::INTER_AREA);
}

} // namespace

const char* name_of(SearchStep step)
{
    switch (step) {
    case SearchStep::as_set:
        return "as it is";
    case SearchStep::small_rings:
        return "small rings";
    case SearchStep::enlarged:
        return "enlarged and sharpened";
    case SearchStep::adaptive:
        return "adaptive binarisation";
    case SearchStep::by_other_camera:
        return "by the other camera's pose";
    default:
        return "";
    }
}

BoardSearch::BoardSearch(const BoardFile& board)
    : _recognisers { make_recogniser(board), make_recogniser(with_small_rings(board)),
        make_recogniser(with_small_rings(board)), make_recogniser(adaptive(with_small_rings(board))) }
{
}

BoardSearchResult BoardSearch::find(const cv::Mat& grey)
{
    BoardSearchResult result;
    if (_try(SearchStep::as_set, grey, result) || _try(SearchStep::small_rings, grey, result)) return result;
    if (_try(SearchStep::enlarged, enlarged(grey), result)) {
        take_back(result, grey.size());
        return result;
    }
    _try(SearchStep::adaptive, grey, result);
    return result;
}

std::string BoardSearch::error_name(int code) const
{
    return _recognisers[0]->get_error_name(code);
}

/// @param result  kept, but for the drawing, where this step finds nothing and an earlier one has said why
bool BoardSearch::_try(SearchStep step, cv::Mat picture, BoardSearchResult& result)
{
    iCalibBoardRecognizer& recogniser = *_recognisers[static_cast<std::size_t>(step)];
    std::vector<cv::Point2f> markers;
    const int code = recogniser.recognize(picture, markers);
    const bool found = code == 0;
    if (found || step == SearchStep::as_set) {
        result.code = code;
        recogniser.copy_result_image(result.drawing, -1);
    }
    if (found) {
        result.step = step;
        result.markers = std::move(markers);
    }
    return found;
}

} // namespace vexo
