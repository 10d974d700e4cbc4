#include "host/calibration/board_search.h"

#include "base/failure.h"
#include "host/calibration/stray_markers.h"
#include "vexo/factories.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cfloat>

namespace vexo {

namespace {

constexpr double smallest_radius = 2.0; // px
constexpr double zoom = 2.0;

/// px; of larger pictures four times as many would be taken into memory, twice, and their rings are not small.
constexpr std::size_t most_enlarged = 100'000'000;

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

/// Discs look smaller than they are where the paper outshines small ones.
BoardFile with_far_neighbours(BoardFile board)
{
    constexpr double limit = 1.35; // diameters; the next disc but one is 1.77 away
    board.neighbour_limit = std::max(board.neighbour_limit, limit);
    return board;
}

/// An unsharp mask, gain b - (gain - 1) Gauss(b).
/// @param fine  px; above 0 the first b is smoothed, too, which takes the noise of single pixels off
cv::Mat sharpened(const cv::Mat& picture, double sigma, double gain, double fine)
{
    cv::Mat smooth, soft, sharp;
    if (fine > 0.0) cv::GaussianBlur(picture, smooth, {}, fine);
    cv::GaussianBlur(picture, soft, {}, sigma);
    cv::addWeighted(fine > 0.0 ? smooth : picture, gain, soft, 1.0 - gain, 0.0, sharp);
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
    case SearchStep::smoothed:
        return "enlarged, smoothed and sharpened";
    case SearchStep::strengthened:
        return "enlarged, smoothed and sharpened strongly";
    case SearchStep::fine:
        return "enlarged and finely sharpened";
    case SearchStep::by_other_camera:
        return "by the other camera's pose";
    default:
        return "";
    }
}

BoardSearch::BoardSearch(const BoardFile& board)
    : _board(board)
{
    const BoardFile small = with_small_rings(board);
    _recognisers
        = { make_recogniser(board), make_recogniser(small), make_recogniser(small), make_recogniser(adaptive(small)),
              make_recogniser(small), make_recogniser(small), make_recogniser(with_far_neighbours(small)) };
}

BoardSearchResult BoardSearch::find(const cv::Mat& grey)
{
    constexpr int other_size = 1;
    BoardSearchResult result;
    if (_try(SearchStep::as_set, grey, result) || result.code == other_size) return result;
    if (_try(SearchStep::small_rings, grey, result)) return result;
    cv::Mat large;
    if (grey.total() <= most_enlarged) cv::resize(grey, large, {}, zoom, zoom, cv::INTER_CUBIC);
    const auto in_large = [&](SearchStep step, double sigma, double gain, double fine) {
        if (large.empty() || !_try(step, sharpened(large, sigma, gain, fine), result)) return false;
        take_back(result, grey.size());
        return true;
    };
    if (in_large(SearchStep::enlarged, 6.0, 3.0, 0.0)) return result;
    if (_try(SearchStep::adaptive, grey, result)) return result;
    if (in_large(SearchStep::smoothed, 10.0, 3.0, 1.4)) return result;
    if (in_large(SearchStep::strengthened, 8.0, 8.0, 2.0)) return result;
    in_large(SearchStep::fine, 3.0, 3.0, 0.0);
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
        remove_strays(result.markers, _board);
    }
    return found;
}

} // namespace vexo
