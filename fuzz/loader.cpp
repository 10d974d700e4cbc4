// A loader of the library, with VEXO_FUZZ_FILE of its files replaced by the input; what it takes is used.

#include "base/whole_file.h"
#include "support/loaders.h"
#include "target.h"

#include <sys/mman.h>
#include <unistd.h>

using namespace hard;

namespace {

const Folder& samples()
{
    static const Folder folder;
    static const bool written = write_samples(folder);
    must(written, "the sample files can be written");
    return folder;
}

/// The input as a regular file in memory.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& bytes)
        : _fd(memfd_create("input", 0))
    {
        must(write(_fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "a file in memory");
    }
    ~MemoryFile() { close(_fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(_fd); }

private:
    int _fd;
};

} // namespace

std::string good_input()
{
    std::string bytes;
    must(read_file(samples() / VEXO_FUZZ_FILE, 1U << 24, bytes), "the sample can be read");
    return bytes;
}

bool fuzz_one(const std::string& bytes)
{
    const MemoryFile file(bytes);
    const Outcome outcome = VEXO_FUZZ_LOADER(Paths(samples(), VEXO_FUZZ_FILE, file.path()));
    must(outcome.fault == nullptr, outcome.fault);
    return outcome.taken;
}
