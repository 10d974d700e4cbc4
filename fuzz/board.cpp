// The board recogniser on raw images: bytes of parameters, then pixels.

#include "support/board_photos.h"
#include "target.h"
#include "vexo/vexo.h"

namespace {

constexpr int full_width = 200, full_height = 160;

} // namespace

std::string good_input()
{
    board_photos::Photographer camera { { full_width, full_height }, 250 };
    const board_photos::Board board = board_photos::coarse_board();
    const board_photos::Pose pose = board_photos::view(board, 0.15, 1.0, 0.1, { 0, 0, 330 });
    const cv::Mat picture = camera.photo(board, pose, { 0.3, 0 });
    return std::string { '\0', '\1', '\0', '\0', '\0' }
    + std::string(reinterpret_cast<const char*>(picture.data), picture.total());
}

bool fuzz_one(const std::string& bytes)
{
    Input input(bytes);
    const int width = full_width - input.in(0, full_width - 1);
    vexo::PreProcParam pre;
    pre.binarize_mode = input.in(0, 2);
    pre.threshold = 3 + 2 * input.in(0, 40);
    const int flags = input.next();
    pre.invert = (flags & 1) != 0;
    pre.median = (flags & 2) != 0;
    pre.equalize = (flags & 4) != 0;
    pre.gamma = (flags & 8) != 0 ? 0.5 : 1.0;
    vexo::CircleMarkerParam circle = board_photos::marker_settings();
    circle.min_radius = 2 + input.in(0, 3);
    vexo::CalibBoardParam board = board_photos::coarse_board().param();

    cv::Mat_<uchar> image(full_height, width);
    for (uchar& pixel : image)
        pixel = input.next();
    vexo::iCalibBoardRecognizer* recogniser = vexo::CreateCalibBoardRecognizer();
    must(recogniser != nullptr && recogniser->set_parameters(pre, circle, board), "the board is a good one");
    std::vector<cv::Point2f> points;
    const int code = recogniser->recognize(image, points);
    must(code >= 0 && code <= 5 && code != 1, "a code of the list");
    must(code != 0 || points.size() == 99, "an entry for each position");
    cv::Mat picture;
    for (int kind = -1; kind <= 5; ++kind)
        recogniser->copy_result_image(picture, kind);
    recogniser->destroy();
    return code == 0;
}
