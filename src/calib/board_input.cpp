#include "calib/board_input.h"

#include "base/boundary.h"
#include "board/KorvaCalibBoardRecognizer.h"
#include "board/result_picture.h"

#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <new>

namespace vexo {

bool set_board_parameters(
    RecognizerPtr& recognizer, PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board)
{
    if (!recognizer) recognizer.reset(null_if_it_throws([] { return new (std::nothrow) KORVACalibBoardRecognizer; }));
    return recognizer && recognizer->set_parameters(pre, circle, board);
}

cv::Mat wrap_picture(unsigned char* data, int width, int height, unsigned long step)
{
    if (data == nullptr || width < 1 || height < 1) return {};
    if (step == 0) step = static_cast<unsigned long>(width);
    if (step < static_cast<unsigned long>(width)) return {};
    if (step > PTRDIFF_MAX / static_cast<unsigned long>(height)) return {}; // no memory holds such rows
    return cv::Mat(height, width, CV_8UC1, data, step);
}

cv::Mat result_picture(iCalibBoardRecognizer& recognizer, const cv::Mat& picture) noexcept
{
    return nothing_if_it_throws([&] {
        cv::Mat result;
        recognizer.copy_result_image(result, -1);
        if (result.empty()) result = picture;
        cv::Mat colour;
        if (result.channels() == 1)
            cv::cvtColor(result, colour, cv::COLOR_GRAY2BGR);
        else
            colour = result;
        return colour;
    });
}

bool room_for_one_more(std::vector<View>& views) noexcept
{
    return false_if_it_throws([&] {
        if (views.size() == views.capacity()) views.reserve(2 * views.size() + 8);
    });
}

void present_result(iCalibBoardRecognizer& recognizer, bool show, const std::string& save) noexcept
{
    false_if_it_throws([&] { // no memory for the name or the window: the view is kept all the same
        if (!save.empty()) recognizer.save_result_image(save, -1);
        if (!show) return;
        recognizer.show_result_image(-1);
        wait_for_key(moment_ms); // lets the window draw itself
    });
}

} // namespace vexo
