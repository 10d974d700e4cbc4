#include "terminal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

namespace vexo::app {

namespace {

constexpr double seconds_before_progress = 1.0;

/// The standard error stream as the caller opened it.
std::atomic<int>& own_stderr()
{
    static std::atomic<int> fd { STDERR_FILENO };
    return fd;
}

void write_all(const std::string& text)
{
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t n = ::write(own_stderr(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return; // nobody listens
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

void say(const GlobalOptions& options, const std::string& line)
{
    if (options.json || options.quiet) return;
    std::cout << line << '\n';
    if (!std::cout) throw TemporaryFailure("the standard output was closed");
}

void say(const GlobalOptions& options, const std::vector<std::string>& lines)
{
    for (const std::string& line : lines)
        say(options, line);
}

void put_json(const GlobalOptions& options, const Json& result)
{
    if (!options.json) return;
    std::cout << json_text(result) << std::flush;
    if (!std::cout) throw TemporaryFailure("the standard output was closed");
}

void complain(const std::string& line)
{
    write_all(line + "\n");
}

void mute_libraries()
{
    const int kept = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int nowhere = kept < 0 ? -1 : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0) return;
    own_stderr() = kept;
    ::dup2(nowhere, STDERR_FILENO);
    ::close(nowhere);
}

Progress::Progress(const GlobalOptions& options, int total)
    : _silent(options.json || options.quiet)
    , _terminal(::isatty(own_stderr()) == 1)
    , _total(std::max(total, 1))
    , _start(std::chrono::steady_clock::now())
{
}

Progress::~Progress()
{
    finish();
}

void Progress::step(const std::string& what)
{
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - _start;
    if (!_silent && passed.count() > seconds_before_progress) {
        _draw(what);
        _drawn = true;
    }
    _done = std::min(_done + 1, _total);
}

void Progress::finish()
{
    if (_drawn && _terminal) write_all("\r\033[K");
    _drawn = false;
}

OnStep Progress::on_step()
{
    return [this](const std::string& what) {
        step(what);
        return true;
    };
}

void Progress::_draw(const std::string& what) const
{
    constexpr int width = 30;
    if (!_terminal) {
        std::cout << "... " << what << " (" << _done + 1 << " of " << _total << ")" << std::endl;
        return;
    }
    const auto filled = static_cast<std::size_t>(width * _done / _total);
    write_all("\r\033[K[" + std::string(filled, '#') + std::string(width - filled, '.') + "] "
        + std::to_string(100 * _done / _total) + " %  " + what);
}

} // namespace vexo::app
