#include "base/whole_file.h"

#include "base/failure.h"

#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {

namespace {

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

/// Gets the temporary file that belongs to a target: creates it, or reuses what a killed process left.
/// A living writer holds the lock, so its file is never taken. -1 when neither is possible.
int take_temporary(const std::string& temporary)
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
    errno = EBUSY;
    return -1;
}

/// The name that a file is written to: that of the last link, when the path's last part is a symbolic link. Empty for
/// a loop.
std::string without_links(std::string path)
{
    constexpr int most_links = 40; // as the kernel follows
    for (int i = 0; i < most_links; ++i) {
        std::error_code not_a_link;
        const std::filesystem::path named = std::filesystem::read_symlink(path, not_a_link);
        if (not_a_link) return path;
        path = (std::filesystem::path(path).parent_path() / named).string(); // an absolute one stands alone
    }
    return {};
}

/// False, with errno saying why.
bool refused(int error) noexcept
{
    errno = error;
    return false;
}

} // namespace

bool read_file(const std::string& path, std::size_t limit, std::string& bytes)
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

std::string read_bytes(const std::string& path, std::size_t limit)
{
    namespace fs = std::filesystem;
    std::string bytes;
    if (read_file(path, limit, bytes)) return bytes;
    std::error_code ignored;
    if (!fs::exists(path, ignored)) throw Failure(path + ": there is no such file");
    if (!fs::is_regular_file(path, ignored)) throw Failure(path + ": is not a file");
    const auto size = fs::file_size(path, ignored);
    if (!ignored && size == 0) throw Failure(path + ": the file is empty");
    if (!ignored && size > limit) throw Failure(path + ": the file is larger than " + std::to_string(limit) + " bytes");
    throw Failure(path + ": the file cannot be read; check its permissions");
}

bool write_file(const std::string& path, const void* bytes, std::size_t size)
{
    if (path.empty() || path.find('\0') != std::string::npos) return refused(EINVAL);
    struct stat old = {};
    if (::stat(path.c_str(), &old) == 0 && !S_ISREG(old.st_mode)) return refused(EISDIR);
    const std::string target = without_links(path);
    if (target.empty() || target.back() == '/') return refused(target.empty() ? ELOOP : EISDIR);

    const std::string temporary = target + ".vexo-tmp";
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
    if (whole && ::rename(temporary.c_str(), target.c_str()) == 0) return file.close();
    const int error = errno;
    ::unlink(temporary.c_str());
    file.close();
    return refused(error);
}

bool write_file(const std::string& path, const std::string& bytes)
{
    return write_file(path, bytes.data(), bytes.size());
}

bool write_file(const std::string& path, const std::vector<unsigned char>& bytes)
{
    return write_file(path, bytes.data(), bytes.size());
}

bool same_file(const std::string& a, const std::string& b)
{
    if (a == b) return true;
    std::error_code error;
    const std::filesystem::path path_a = std::filesystem::weakly_canonical(without_links(a), error);
    const std::filesystem::path path_b = std::filesystem::weakly_canonical(without_links(b), error);
    return !error && path_a == path_b;
}

} // namespace vexo
