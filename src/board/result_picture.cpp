#include "board/result_picture.h"

#include "base/boundary.h"
#include "base/pictures.h"
#include "base/whole_file.h"
#include "board/RotatedEllipse.h"

#include <opencv2/imgproc.hpp>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <dlfcn.h>

namespace vexo {

namespace {

/// cv::imshow and cv::waitKey. Their library brings all of a desktop's with it, which few hosts have: it is loaded when
/// the first window is asked for, and only in the version whose core is in the process already.
struct Windows {
    void (*show)(const std::string&, const cv::_InputArray&) = nullptr;
    int (*wait)(int) = nullptr;
};

std::string library_of_windows()
{
    return "libopencv_highgui.so." + std::to_string(CV_VERSION_MAJOR * 100 + CV_VERSION_MINOR);
}

Windows found_windows() noexcept
{
    Windows windows;
    void* library = nullptr;
    false_if_it_throws([&library] { library = dlopen(library_of_windows().c_str(), RTLD_NOW | RTLD_LOCAL); });
    if (library == nullptr) return windows;
    void* show = dlsym(library, // cv::imshow(std::string const&, cv::_InputArray const&)
        "_ZN2cv6imshowERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKNS_11_InputArrayE");
    void* wait = dlsym(library, "_ZN2cv7waitKeyEi"); // cv::waitKey(int)
    if (show == nullptr || wait == nullptr) return windows;
    windows.show = reinterpret_cast<decltype(windows.show)>(show);
    windows.wait = reinterpret_cast<decltype(windows.wait)>(wait);
    return windows;
}

const Windows& windows() noexcept
{
    static const Windows found = found_windows();
    return found;
}

} // namespace

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
    if (windows().show == nullptr) {
        const std::string missing = library_of_windows();
        std::fprintf(stderr, "The window \"%s\" could not be shown without %s.\n", window.c_str(), missing.c_str());
        return;
    }
    const bool shown = false_if_it_throws([&] {
        windows().show(window, picture);
        wait_for_key(wait_ms);
    });
    if (!shown) std::fprintf(stderr, "The window \"%s\" could not be shown.\n", window.c_str());
}

void wait_for_key(int wait_ms)
{
    if (wait_ms >= 0 && display_available() && windows().wait != nullptr) windows().wait(wait_ms);
}

bool write_picture(const std::string& path, const cv::Mat& picture) noexcept
{
    return false_if_it_throws([&] { // false: no encoder for this extension, or no memory
        const size_t dot = path.rfind('.');
        if (picture.empty() || dot == std::string::npos) return false;
        const std::vector<unsigned char> bytes = encoded_picture(path.substr(dot), picture);
        return !bytes.empty() && write_file(path, bytes);
    });
}

void draw_ellipse(cv::Mat& drawing, const RotatedEllipse& ellipse, const cv::Scalar& bgr, int thickness, double scale)
{
    constexpr double largest = 65536; // px; beyond it cv::ellipse's fixed-point coordinates overflow
    if (!(ellipse.major_axis() * scale < largest)) return;
    cv::ellipse(drawing, ellipse.rectangle(scale), bgr, thickness, cv::LINE_8);
}

} // namespace vexo
