#pragma once

#include <opencv2/core.hpp>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

/// Files that are whole or not there, and YAML that cannot hurt: shared by the library and the host programs,
/// header-only. A host may use it for its own files, too.
namespace vexo {
namespace file_io {

/// Largest YAML file that is read, in bytes. A stereo camera file has about 6 KB.
constexpr std::size_t max_yaml_bytes = std::size_t { 1 } << 20;

/// A file descriptor that closes itself.
class Descriptor {
public:
    explicit Descriptor(int fd) noexcept
        : _fd(fd)
    {
    }
    ~Descriptor() { close(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const noexcept { return _fd; }
    bool ok() const noexcept { return _fd >= 0; }

    /// True when the descriptor was open and closing reported no lost write.
    bool close() noexcept
    {
        const bool closed = _fd >= 0 && ::close(_fd) == 0;
        _fd = -1;
        return closed;
    }

private:
    int _fd;
};

/// Reads a whole regular file of 1 to `limit` bytes.
/// Opens without blocking, so that a FIFO or a device in the file's place answers false instead of waiting.
inline bool read_file(const std::string& path, std::size_t limit, std::string& bytes)
{
    if (path.empty() || path.find('\0') != std::string::npos) return false;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info = {};
    if (!file.ok() || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
    if (info.st_size <= 0 || static_cast<std::size_t>(info.st_size) > limit) return false;

    std::string read(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < read.size()) {
        const ssize_t n = ::read(file.get(), &read[done], read.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false; // shrank while it was read
        done += static_cast<std::size_t>(n);
    }
    bytes.swap(read);
    return true;
}

/// Takes the temporary file that belongs to a target: creates it, or takes over what a killed process left.
/// A living writer holds the lock, so its file is never taken. -1 when neither is possible.
inline int take_temporary(const std::string& temporary)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd < 0 && errno == EEXIST) fd = ::open(temporary.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0) {
            if (errno == ENOENT) continue; // its writer renamed it just now
            return -1;
        }
        struct stat mine = {}, there = {};
        const bool held = ::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &mine) == 0 && S_ISREG(mine.st_mode)
            && ::stat(temporary.c_str(), &there) == 0 && mine.st_ino == there.st_ino && mine.st_dev == there.st_dev;
        if (held && ::ftruncate(fd, 0) == 0) return fd;
        ::close(fd);
        ::usleep(10000); // another process or thread writes the same target: let it finish
    }
    return -1;
}

/// Replaces `path` by a file with these bytes, or leaves everything as it was and answers false: the bytes go
/// into a temporary file beside the target, reach the disk, and only then take the target's name. A full disk,
/// a read-only folder or a kill at any moment leaves the old file or the new one, never a mixture.
inline bool write_file(const std::string& path, const void* bytes, std::size_t size)
{
    if (path.empty() || path.find('\0') != std::string::npos || path.back() == '/') return false;
    struct stat old = {};
    if (::stat(path.c_str(), &old) == 0 && !S_ISREG(old.st_mode)) return false;

    const std::string temporary = path + ".vexo-tmp";
    Descriptor file(take_temporary(temporary));
    if (!file.ok()) return false;

    const char* data = static_cast<const char*>(bytes);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::write(file.get(), data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    // Renamed while locked: another writer of the same target waits for the lock, then finds the name gone.
    const bool whole = done == size && ::fsync(file.get()) == 0;
    if (whole && ::rename(temporary.c_str(), path.c_str()) == 0) return file.close();
    ::unlink(temporary.c_str());
    return false;
}

inline bool write_file(const std::string& path, const std::string& bytes)
{
    return write_file(path, bytes.data(), bytes.size());
}

inline bool write_file(const std::string& path, const std::vector<unsigned char>& bytes)
{
    return write_file(path, bytes.data(), bytes.size());
}

/// Whether a line, from `first` on, begins with a key as the writer makes them ("name:", then a space or the end),
/// or, where `item` allows it, with "-" for an item of a list. OpenCV 4.6's parser loops for ever on some lines that
/// are neither: "%YAML:1.0", " Y:A", "--", "-".
inline bool yaml_line_begins_well(const std::string& line, std::size_t first, bool item)
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
inline bool yaml_line_is_plain(const std::string& line, int& depth)
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

/// Whether a text is the plain kind of YAML that cv::FileStorage writes. OpenCV 4.6's parser loops for ever on
/// an unfinished "!!binary |", and nests until the stack ends on brackets; no catch helps against either, so
/// every text passes this check before it is parsed.
inline bool yaml_is_plain(const std::string& text)
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

/// Opens a YAML file for reading, parsed from memory. False for whatever is not a readable, plain YAML file;
/// prints nothing and throws nothing. `storage` is open only on success.
inline bool open_yaml(const std::string& path, cv::FileStorage& storage)
{
    try {
        std::string text;
        if (!read_file(path, max_yaml_bytes, text)) return false;
        std::string plain;
        plain.reserve(text.size());
        for (const char c : text)
            if (c != '\r') plain.push_back(c);
        if (!yaml_is_plain(plain)) return false;
        return storage.open(plain, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    } catch (...) {
        storage.release();
        return false;
    }
}

/// Storage that collects YAML in memory; close_yaml() writes it. Never write a storage to a path: it does not
/// report a full disk, and a kill leaves half a file.
inline cv::FileStorage memory_yaml()
{
    return cv::FileStorage(".yaml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY | cv::FileStorage::FORMAT_YAML);
}

/// Writes what a memory_yaml() storage collected, whole or not at all.
inline bool close_yaml(cv::FileStorage& storage, const std::string& path)
{
    return write_file(path, std::string(storage.releaseAndGetString()));
}

} // namespace file_io
} // namespace vexo
