#include "frames.h"

#include "common.h"

#include "base/picture_header.h"
#include "base/whole_file.h"
#include "quiet_stderr.h"

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <filesystem>

#include <glob.h>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

/// Order of names in which runs of digits compare as numbers.
bool natural_less(const std::string& a, const std::string& b)
{
    std::size_t i = 0, k = 0;
    while (i < a.size() && k < b.size()) {
        if (!is_digit(a[i]) || !is_digit(b[k])) {
            if (a[i] != b[k]) return a[i] < b[k];
            ++i, ++k;
            continue;
        }
        const auto number_at = [](const std::string& s, std::size_t& at) {
            while (at + 1 < s.size() && s[at] == '0' && is_digit(s[at + 1]))
                ++at;
            const std::size_t begin = at;
            while (at < s.size() && is_digit(s[at]))
                ++at;
            return s.substr(begin, at - begin);
        };
        const std::string left = number_at(a, i), right = number_at(b, k);
        if (left.size() != right.size()) return left.size() < right.size();
        if (left != right) return left < right;
    }
    return a.size() - i < b.size() - k;
}

bool is_picture(const fs::path& path)
{
    std::string end = path.extension().string();
    for (char& c : end)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const char* const known[] = { ".png", ".bmp", ".tif", ".tiff", ".pgm", ".jpg", ".jpeg" };
    return std::find(std::begin(known), std::end(known), end) != std::end(known);
}

std::vector<std::string> match(const std::string& pattern)
{
    std::vector<std::string> found;
    glob_t result = {};
    if (::glob(pattern.c_str(), 0, nullptr, &result) == 0)
        found.assign(result.gl_pathv, result.gl_pathv + result.gl_pathc);
    ::globfree(&result);
    return found;
}

/// The first of frame00, frame01, ... that a numbered set lacks; "" when the names are not of that kind.
std::string missing_frame(const std::vector<std::string>& paths, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = std::string(i < 10 ? "frame0" : "frame") + std::to_string(i);
        const auto has_name = [&name](const std::string& path) { return fs::path(path).stem() == name; };
        if (std::any_of(paths.begin(), paths.end(), has_name)) continue;
        const bool numbered = std::any_of(paths.begin(), paths.end(),
            [](const std::string& path) { return fs::path(path).stem().string().rfind("frame", 0) == 0; });
        return numbered ? name : "";
    }
    return "";
}

void check_count(const std::string& where, const std::vector<std::string>& paths, std::size_t count)
{
    if (paths.size() == count) return;
    const std::string missing = paths.size() < count ? missing_frame(paths, count) : "";
    const std::string need
        = "; the method needs " + std::to_string(count) + (count == 1 ? "" : " (dark, lit, patterns)");
    if (paths.empty()) throw Failure(where + ": no pictures found" + need);
    throw Failure(where + ": " + std::to_string(paths.size()) + " pictures found"
        + (missing.empty() ? "" : ", " + missing + " is missing") + need);
}

void check_size(const FrameSet& set, const std::string& path, const cv::Mat& frame)
{
    if (frame.size() == set.size) return;
    throw Failure(path + ": " + std::to_string(frame.cols) + " x " + std::to_string(frame.rows) + ", but "
        + set.paths[0][0] + " is " + std::to_string(set.size.width) + " x " + std::to_string(set.size.height)
        + "; record all frames at one size");
}

/// A map of one number per pixel, CV_32F.
cv::Mat read_numbers(const std::string& path)
{
    cv::Mat map = read_picture(path, cv::IMREAD_UNCHANGED);
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

std::vector<std::string> find_frames(const std::string& folder_or_pattern)
{
    std::error_code error;
    std::vector<std::string> found;
    if (fs::is_directory(folder_or_pattern, error)) {
        for (const auto& entry : fs::directory_iterator(folder_or_pattern, error))
            if (is_picture(entry.path())) found.push_back(entry.path().string());
        if (error) throw Failure(folder_or_pattern + ": the folder cannot be read: " + error.message());
    } else {
        found = match(folder_or_pattern);
    }
    std::sort(found.begin(), found.end(), natural_less);
    return found;
}

cv::Mat read_picture(const std::string& path, int flags)
{
    const std::string bytes = read_bytes(path, picture_file::max_bytes);
    const cv::Size size = picture_file::announced_size(bytes);
    if (std::int64_t { size.width } * size.height > max_picture_area)
        throw Failure(path + ": is " + std::to_string(size.width) + " x " + std::to_string(size.height)
            + " pixels; at most " + std::to_string(max_picture_area) + " pixels are read");
    const cv::Mat raw(1, static_cast<int>(bytes.size()), CV_8U, const_cast<char*>(bytes.data()));
    cv::Mat picture;
    try {
        const QuietStderr quiet; // the decoders of picture formats print their own complaints
        if (picture_file::may_be_decoded(bytes)) picture = cv::imdecode(raw, flags);
    } catch (const cv::Exception&) {
        picture.release();
    }
    if (picture.empty())
        throw Failure(path + ": is damaged, or no picture that can be read; PNG, TIFF, BMP, PNM and JPEG are");
    return picture;
}

cv::Mat read_grey(const std::string& path)
{
    return read_picture(path, cv::IMREAD_GRAYSCALE);
}

FrameSet read_frames(const std::string& cam0, const std::string& cam1, std::size_t count)
{
    FrameSet set;
    set.paths = { find_frames(cam0), find_frames(cam1) };
    check_count(cam0, set.paths[0], count);
    check_count(cam1, set.paths[1], count);
    for (std::vector<cv::Mat>& frames : set.frames)
        frames.resize(count);
    const QuietStderr quiet; // muted once, not with each picture
    in_parallel(2 * count,
        [&](std::size_t i) { set.frames[i / count][i % count] = read_grey(set.paths[i / count][i % count]); });
    set.size = set.frames[0][0].size();
    for (std::size_t i = 0; i < 2 * count; ++i)
        check_size(set, set.paths[i / count][i % count], set.frames[i / count][i % count]);
    return set;
}

FrameSet read_decoded(const std::string& cam0, const std::string& cam1, Method method)
{
    if (method == Method::sgbm) throw Failure("--decoded: block matching takes pictures, no decoded maps");
    FrameSet set;
    read_maps(set, 0, cam0, method);
    read_maps(set, 1, cam1, method);
    return set;
}

} // namespace vexo::app
