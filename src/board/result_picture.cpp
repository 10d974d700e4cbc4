#include "board/result_picture.h"

#include "base/boundary.h"
#include "base/whole_file.h"
#include "board/RotatedEllipse.h"

#include <opencv2/highgui.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace vexo {

bool display_available()
{
    for (const char* name : { "DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM" }) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') return true;
    }
    return false;
}

void show_picture(const std::string& window, const cv::Mat& picture, int wait_ms)
{
    if (picture.empty()) return;
    if (!display_available()) {
        std::fprintf(stderr, "No display for the window \"%s\".\n", window.c_str());
        return;
    }
    const bool shown = false_if_it_throws([&] {
        cv::imshow(window, picture);
        if (wait_ms >= 0) cv::waitKey(wait_ms);
    });
    if (!shown) std::fprintf(stderr, "The window \"%s\" could not be shown.\n", window.c_str());
}

bool write_picture(const std::string& path, const cv::Mat& picture) noexcept
{
    return false_if_it_throws([&] { // false: no encoder for this extension, or no memory
        const size_t dot = path.rfind('.');
        if (picture.empty() || dot == std::string::npos) return false;
        std::vector<unsigned char> bytes;
        return cv::imencode(path.substr(dot), picture, bytes) && write_file(path, bytes);
    });
}

void draw_ellipse(cv::Mat& drawing, const RotatedEllipse& ellipse, const cv::Scalar& bgr, int thickness, double scale)
{
    constexpr double largest = 65536; // px; beyond it cv::ellipse's fixed-point coordinates overflow
    if (!(ellipse.major_axis() * scale < largest)) return;
    cv::ellipse(drawing, ellipse.rectangle(scale), bgr, thickness, cv::LINE_8);
}

} // namespace vexo
