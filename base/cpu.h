#pragma once

#include <atomic>

/// The one place that knows of kinds of processors.

#if defined(__x86_64__)
/// Before a function: compiled for AVX2, without FMA. Called only where Cpu::has_avx2().
#define VEXO_AVX2 __attribute__((target("avx2")))
/// The same for loops of look-ups: tuned so that compilers make gathers of them.
#define VEXO_AVX2_GATHERS __attribute__((target("avx2,tune=skylake")))
#endif
/// Before a function that is part of every form which uses it: code for other processors in the middle of AVX2 code
/// costs much time.
#define VEXO_INLINE inline __attribute__((always_inline))

namespace vexo {

/// Whether kernels for processors with AVX2 are to be used: one binary serves every x86-64. Both forms of a kernel
/// give the same bits.
class Cpu {
public:
    static bool has_avx2() noexcept { return _avx2().load(std::memory_order_relaxed); }

    /// For tests: false makes every kernel use its plain form; true uses what the processor has.
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
