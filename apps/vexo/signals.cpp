#include "signals.h"

#include "host/files/temporary_folder.h"
#include "terminal.h"

#include <atomic>
#include <csignal>
#include <string>
#include <system_error>
#include <thread>

#include <unistd.h>

namespace vexo::app {

namespace {

std::atomic<bool> stopped { false };

const char* name_of_signal(int signal)
{
    return signal == SIGTERM ? "SIGTERM" : signal == SIGINT ? "SIGINT" : "SIGHUP";
}

[[noreturn]] void end_by(int signal)
{
    stopped = true;
    abandon_unfinished();
    complain(std::string("vexo: stopped by ") + name_of_signal(signal) + "; no unfinished file is left, run it again");
    ::signal(signal, SIG_DFL);
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
    ::raise(signal);
    ::_exit(128 + signal);
}

bool is_ignored(int signal)
{
    struct sigaction action = {};
    return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

void watch_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : { SIGTERM, SIGINT, SIGHUP })
        if (!is_ignored(signal)) sigaddset(&signals, signal);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    try {
        std::thread([signals] {
            int signal = 0;
            if (sigwait(&signals, &signal) == 0) end_by(signal);
        }).detach();
    } catch (const std::system_error&) { // no thread to be had: the signals end the program as ever
        ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
}

void wait_if_stopped()
{
    while (stopped)
        ::pause();
}

} // namespace vexo::app
