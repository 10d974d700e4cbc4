#pragma once

#include <atomic>

namespace vexo {

/// Whether kernels for processors with AVX2 are to be used: one binary serves every x86-64. Both forms of a kernel
/// give the same bits.
class Cpu {
public:
    static bool has_avx2() noexcept { return _avx2().load(std::memory_order_relaxed); }

    /// For tests: false makes every kernel take its plain form; true takes what the processor has.
    static void allow_avx2(bool allowed) noexcept { _avx2() = allowed && _detect(); }

private:
    static bool _detect() noexcept
    {
#if defined(__x86_64__)
        return __builtin_cpu_supports("avx2") != 0;
#else
        return false;
#endif
    }
    static std::atomic<bool>& _avx2() noexcept
    {
        static std::atomic<bool> supported { _detect() };
        return supported;
    }
};

} // namespace vexo
