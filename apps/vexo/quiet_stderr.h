#pragma once

#include <mutex>

#include <fcntl.h>
#include <unistd.h>

namespace vexo::app {

/// While it lives, nothing reaches the standard error stream: setparams() and the decoders of picture formats
/// write fixed lines of their own there, and a user of this program shall see only its own. Several threads may have
/// one each: the first mutes the stream, the last opens it again.
class QuietStderr {
public:
    QuietStderr()
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (_count++ > 0) return;
        _kept = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        const int nowhere = _kept < 0 ? -1 : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (nowhere < 0) return;
        ::dup2(nowhere, STDERR_FILENO);
        ::close(nowhere);
    }
    ~QuietStderr()
    {
        const std::lock_guard<std::mutex> lock(_mutex);
        if (--_count > 0 || _kept < 0) return;
        ::dup2(_kept, STDERR_FILENO);
        ::close(_kept);
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    static inline std::mutex _mutex;
    static inline int _count = 0;
    static inline int _kept = -1;
};

} // namespace vexo::app
