#include "base/plain_yaml.h"

#include "base/boundary.h"
#include "base/whole_file.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace vexo {

namespace {

/// Follows the quotes of a line, character by character.
class Quotes {
public:
    /// Whether the next character stands outside of them; the quotes themselves do not.
    bool are_closed_at(char c) noexcept
    {
        if (_quote == 0) {
            if (c == '"' || c == '\'') _quote = c;
            return _quote == 0;
        }
        if (_escaped)
            _escaped = false;
        else if (c == '\\' && _quote == '"')
            _escaped = true;
        else if (c == _quote)
            _quote = 0;
        return false;
    }
    bool are_closed() const noexcept { return _quote == 0; }

private:
    char _quote = 0;
    bool _escaped = false;
};

/// A line up to its comment and the blanks in front of that.
std::string without_comment(const std::string& line)
{
    const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
    Quotes quotes;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (!quotes.are_closed_at(line[i]) || line[i] != '#' || (i > 0 && !is_blank(line[i - 1]))) continue;
        while (i > 0 && is_blank(line[i - 1]))
            --i;
        return line.substr(0, i);
    }
    return line;
}

/// The text that is parsed: without comments, and with lines that end in "\n" alone.
std::string without_comments(const std::string& text)
{
    std::string all, line;
    all.reserve(text.size());
    for (const char c : text) {
        if (c == '\n') {
            all += without_comment(line) + '\n';
            line.clear();
        } else if (c != '\r') {
            line.push_back(c);
        }
    }
    return all + without_comment(line);
}

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
    Quotes quotes;
    int nested = 0; // "- - -" and "a: b: c:" nest without a bracket
    for (std::size_t i = first; i < line.size(); ++i) {
        const char c = line[i];
        if (!quotes.are_closed_at(c)) continue;
        if (c == '#') break;
        if (c == '[' || c == '{') ++depth;
        if (c == ']' || c == '}') --depth;
        if (depth < 0 || depth > max_depth) return false;
        const bool ends = i + 1 == line.size() || line[i + 1] == ' ';
        if (depth == 0 && (c == '-' || c == ':' || c == '?') && ends && ++nested > max_depth) return false;
    }
    return quotes.are_closed();
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
    bool marked = false;
    bool ended = false;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        const bool directive = begin == 0, mark = !begun && !marked && line == "---";
        begin = end + 1;
        marked = marked || mark;
        if (directive || mark) continue;
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
        const std::string plain = without_comments(text);
        if (!yaml_is_plain(plain)) return false;
        return storage.open(plain, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    });
    if (!opened) storage.release();
    return opened;
}

bool read_whole(const cv::FileNode& node, int& value)
{
    if (!node.isInt() && !node.isReal()) return false;
    const auto number = static_cast<double>(node);
    if (!(std::abs(number) <= INT_MAX) || number != std::floor(number)) return false;
    value = static_cast<int>(number);
    return true;
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
