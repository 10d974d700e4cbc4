#include "host/captures/find_frames.h"

#include "base/failure.h"

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

} // namespace vexo
