#pragma once

#include <chrono>

namespace vexo {

/// Seconds from one lap to the next.
class Stopwatch {
public:
    double lap()
    {
        const auto now = std::chrono::steady_clock::now();
        const std::chrono::duration<double> passed = now - _start;
        _start = now;
        return passed.count();
    }

private:
    std::chrono::steady_clock::time_point _start = std::chrono::steady_clock::now();
};

} // namespace vexo
