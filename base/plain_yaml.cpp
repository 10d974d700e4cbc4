#include "base/plain_yaml.h"

#include "base/boundary.h"
#include "base/whole_file.h"

#include <algorithm>

namespace vexo {

namespace {

/// Whether a line, from `first` on, begins with a key as the writer makes them ("name:", then a space or the end),
/// or, where `item` allows it, with "-" for an item of a list. OpenCV 4.6's parser loops for ever on some lines that
/// are neither: "%YAML:1.0", " Y:A", "--", "-".
bool yaml_line_begins_well(const std::string& line, std::size_t first, bool item)
{
    const auto ends = [&line](std::size_t i) { return i == line.size() || line[i] == ' '; };
    if (line[first] == '-') return item && ends(first + 1);
    const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto within = [&](char c) { return letter(c) || (c >= '0' && c <= '9') || c == '-' || c == ' '; };
    std::size_t i = first;
    if (!letter(line[i])) return false;
    while (i < line.size() && within(line[i]))
        ++i;
    return i < line.size() && line[i] == ':' && ends(i + 1);
}

/// One line of the check below. `depth` is the number of brackets open before it, updated.
bool yaml_line_is_plain(const std::string& line, int& depth)
{
    constexpr int max_depth = 4;
    constexpr std::size_t max_indent = 64; // each level of indentation is a level of the parser's recursion
    const std::size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos || line == "...") return true;
    if (first > max_indent) return false;
    if ((depth == 0 || first == 0) && line[first] != '#' && !yaml_line_begins_well(line, first, first > 0))
        return false;
    char quote = 0;
    int nested = 0; // "- - -" and "a: b: c:" nest without a bracket
    for (std::size_t i = first; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != 0) {
            if (c == '\\' && quote == '"')
                ++i;
            else if (c == quote)
                quote = 0;
            continue;
        }
        if (c == '#') break;
        if (c == '"' || c == '\'') quote = c;
        if (c == '[' || c == '{') ++depth;
        if (c == ']' || c == '}') --depth;
        if (depth < 0 || depth > max_depth) return false;
        const bool ends = i + 1 == line.size() || line[i + 1] == ' ';
        if (depth == 0 && (c == '-' || c == ':' || c == '?') && ends && ++nested > max_depth) return false;
    }
    return quote == 0;
}

} // namespace

bool yaml_is_plain(const std::string& text)
{
    if (text.empty() || text.size() > max_yaml_bytes || text.compare(0, 5, "%YAML") != 0) return false;
    if (text.find("!!binary") != std::string::npos) return false;
    for (const char c : text)
        if (c != '\n' && (c < ' ' || c > '~')) return false;

    int depth = 0;
    bool begun = false; // the first key stands at column 0: a line further left than it loops for ever, too
    bool ended = false;
    std::size_t number = 0;
    for (std::size_t begin = 0; begin < text.size(); ++number) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        begin = end + 1;
        if (number == 0 || (number == 1 && line == "---")) continue;
        if (ended && !line.empty()) return false; // "..." ends the document
        if (!begun && !line.empty() && line[0] == ' ' && line.find_first_not_of(' ') != std::string::npos) return false;
        begun = begun || (!line.empty() && line[0] != ' ' && line[0] != '#');
        if (!yaml_line_is_plain(line, depth)) return false;
        ended = ended || line == "...";
    }
    return depth == 0;
}

bool open_yaml(const std::string& path, cv::FileStorage& storage)
{
    const bool opened = false_if_it_throws([&] {
        std::string text;
        if (!read_file(path, max_yaml_bytes, text)) return false;
        std::string plain;
        plain.reserve(text.size());
        for (const char c : text)
            if (c != '\r') plain.push_back(c);
        if (!yaml_is_plain(plain)) return false;
        return storage.open(plain, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    });
    if (!opened) storage.release();
    return opened;
}

cv::FileStorage memory_yaml()
{
    return cv::FileStorage(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_YAML);
}

bool close_yaml(cv::FileStorage& storage, const std::string& path)
{
    return write_file(path, std::string(storage.releaseAndGetString()));
}

} // namespace vexo
