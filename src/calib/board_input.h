#pragma once

#include "calib/Calibrator.h"
#include "vexo/board.h"
#include "vexo/owned.h"

#include <opencv2/core.hpp>

#include <string>
#include <vector>

/// What the calibrators and the pose solver share: owning a recogniser, taking pictures from hosts, and showing
/// how a recognition ended.
namespace vexo {

/// How long a result picture is shown before the next picture is recognised, ms.
constexpr int moment_ms = 10;

using RecognizerPtr = Owned<iCalibBoardRecognizer>;

/// Forwards the parameters; makes the recogniser when there is none. False when that fails or they are refused.
bool set_board_parameters(
    RecognizerPtr& recognizer, PreProcParam& pre, CircleMarkerParam& circle, CalibBoardParam& board);

/// The host's picture as a Mat over its own memory, with step 0 for packed rows; empty when pointer, size or step
/// describe no picture.
cv::Mat wrap_picture(unsigned char* data, int width, int height, unsigned long step);

/// Picture that belongs to how the last recognition ended, BGR; `picture` itself when there is none. Empty for lack
/// of memory.
cv::Mat result_picture(iCalibBoardRecognizer& recognizer, const cv::Mat& picture) noexcept;

/// Makes sure that a view can be appended. False for lack of memory.
bool room_for_one_more(std::vector<View>& views) noexcept;

/// Writes the picture of how the last recognition ended when `save` names a file, and shows it for a moment when
/// asked to.
void present_result(iCalibBoardRecognizer& recognizer, bool show, const std::string& save) noexcept;

} // namespace vexo
