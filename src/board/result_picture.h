#pragma once

#include <opencv2/core.hpp>

#include <string>

/// Pictures for people: windows that never end a program without a display, and files that are whole.
namespace vexo {

class RotatedEllipse;

/// Whether a window can be opened. OpenCV ends the process when it opens one without a display server.
bool display_available();

/// Shows a picture in a window, or writes one line to standard error when there is no display.
/// @param wait_ms  how long to wait for a key; 0: until one is pressed; negative: not at all
void show_picture(const std::string& window, const cv::Mat& picture, int wait_ms);

/// Waits for a key while windows draw themselves, where windows can be opened.
/// @param wait_ms  as of show_picture()
void wait_for_key(int wait_ms);

/// Writes a picture in the format of the path's extension. False when it cannot be encoded or written; then
/// the file is as it was.
bool write_picture(const std::string& path, const cv::Mat& picture) noexcept;

/// Draws an ellipse, unless it is so large that its outline has no pixel in any picture.
void draw_ellipse(
    cv::Mat& drawing, const RotatedEllipse& ellipse, const cv::Scalar& bgr, int thickness, double scale = 1.0);

} // namespace vexo
