#include "host/captures/frames.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/pictures.h"
#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include <glob.h>

namespace vexo {

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

} // namespace

void check_size(const FrameSet& set, const std::string& path, const cv::Mat& frame)
{
    if (frame.size() == set.size) return;
    throw Failure(path + ": " + size_text(frame.cols, frame.rows) + ", but " + set.paths[0][0] + " is "
        + size_text(set.size.width, set.size.height) + "; record all frames at one size");
}

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

FrameSet read_frames(const std::string& cam0, const std::string& cam1, std::size_t count)
{
    FrameSet set;
    set.paths = { find_frames(cam0), find_frames(cam1) };
    check_count(cam0, set.paths[0], count);
    check_count(cam1, set.paths[1], count);
    for (std::vector<cv::Mat>& frames : set.frames)
        frames.resize(count);
    in_parallel(2 * count,
        [&](std::size_t i) { set.frames[i / count][i % count] = read_grey(set.paths[i / count][i % count]); });
    set.size = set.frames[0][0].size();
    for (std::size_t i = 0; i < 2 * count; ++i)
        check_size(set, set.paths[i / count][i % count], set.frames[i / count][i % count]);
    return set;
}

} // namespace vexo
