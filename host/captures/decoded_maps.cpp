#include "host/captures/decoded_maps.h"

#include "base/failure.h"
#include "base/pictures.h"

#include <cmath>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

namespace {

/// A map of one number per pixel, CV_32F.
cv::Mat read_numbers(const std::string& path)
{
    cv::Mat map = read_picture(path, PictureAs::stored);
    if (map.channels() != 1) throw Failure(path + ": has several channels; a map holds one number per pixel");
    map.convertTo(map, CV_32F);
    return map;
}

/// Periods as the library takes them, 8 bit; a phase without one becomes NaN.
cv::Mat whole_periods(const cv::Mat& periods, cv::Mat& phase)
{
    cv::Mat whole = cv::Mat::zeros(periods.size(), CV_8U);
    for (int y = 0; y < periods.rows; ++y) {
        for (int x = 0; x < periods.cols; ++x) {
            const float period = periods.at<float>(y, x);
            if (period >= 0.0F && period <= 255.0F && std::floor(period) == period)
                whole.at<uchar>(y, x) = static_cast<uchar>(period);
            else
                phase.at<float>(y, x) = std::nanf("");
        }
    }
    return whole;
}

std::string map_path(const std::string& folder, const std::string& name)
{
    const std::string tiff = (fs::path(folder) / (name + ".tiff")).string();
    const std::string png = (fs::path(folder) / (name + ".png")).string();
    std::error_code ignored;
    return name == "period" && fs::exists(png, ignored) ? png : tiff;
}

void read_maps(FrameSet& set, std::size_t camera, const std::string& folder, Method method)
{
    const bool gray = method == Method::gray_phase;
    const auto maps = gray ? std::vector<std::string> { "period", "phase" }
                           : std::vector<std::string> { "phase0", "phase1", "phase2" };
    std::vector<cv::Mat>& frames = set.frames[camera];
    const auto add = [&](const std::string& path, const cv::Mat& frame) {
        set.paths[camera].push_back(path);
        if (set.size.empty()) set.size = frame.size();
        check_size(set, path, frame);
        frames.push_back(frame);
    };
    for (const char* name : { "black.png", "white.png" }) {
        const std::string path = (fs::path(folder) / name).string();
        add(path, read_grey(path));
    }
    for (const std::string& name : maps)
        add(map_path(folder, name), read_numbers(map_path(folder, name)));
    if (gray) frames[2] = whole_periods(frames[2], frames[3]);
}

} // namespace

FrameSet read_decoded(const std::string& cam0, const std::string& cam1, Method method)
{
    if (method == Method::sgbm) throw UsageFailure("--decoded: block matching takes pictures, no decoded maps");
    FrameSet set;
    read_maps(set, 0, cam0, method);
    read_maps(set, 1, cam1, method);
    return set;
}

} // namespace vexo
