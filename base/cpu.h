#pragma once

#include <atomic>

/// The one place that knows of kinds of processors.

#if defined(__x86_64__)
/// Before a function: compiled for AVX2, without FMA. Called only where Cpu::has_avx2().
#define VEXO_AVX2 __attribute__((target("avx2")))
/// The same for loops of look-ups: tuned so that compilers make gathers of them.
#define VEXO_AVX2_GATHERS __attribute__((target("avx2,tune=skylake")))
/// The same for AVX-512. Called only where Cpu::has_avx512().
#define VEXO_AVX512_SET "avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,avx512vbmi2,tune=icelake-server"
#if defined(__clang__)
#define VEXO_AVX512 __attribute__((target(VEXO_AVX512_SET)))
#else
#define VEXO_AVX512 __attribute__((target(VEXO_AVX512_SET ",prefer-vector-width=512")))
#endif
#endif

/// Plain loops in every form that there is: MAKE(set, TARGET) defines them in a namespace of that name, the target
/// before each function. VEXO_FORM_OF(function) is then the one to call. A macro, since a template cannot carry a
/// target.
#if defined(__x86_64__)
#define VEXO_FORMS(MAKE) MAKE(plain, ) MAKE(avx2, VEXO_AVX2_GATHERS) MAKE(avx512, VEXO_AVX512)
#define VEXO_FORM_OF(NAME) (Cpu::has_avx512() ? avx512::NAME : Cpu::has_avx2() ? avx2::NAME : plain::NAME)
#else
#define VEXO_FORMS(MAKE) MAKE(plain, )
#define VEXO_FORM_OF(NAME) (plain::NAME)
#endif
/// Before a function that is part of every form which uses it: code for other processors in the middle of AVX2 code
/// costs much time.
#define VEXO_INLINE inline __attribute__((always_inline))

namespace vexo {

/// Which form of the kernels is to be used: one binary serves every x86-64. All forms give the same bits.
class Cpu {
public:
    /// Each has what those before it have. AVX-512 only with VBMI2, from Ice Lake and Zen 4 on: earlier processors
    /// slow down when its registers are used.
    enum class Form { plain, avx2, avx512 };

    static Form form() noexcept { return _form().load(std::memory_order_relaxed); }
    static bool has_avx2() noexcept { return form() >= Form::avx2; }
    static bool has_avx512() noexcept { return form() == Form::avx512; }

    /// For tests: no form beyond this one, as far as the processor has it. @return the form that is used now
    static Form allow(Form most) noexcept { return _form() = most < _detect() ? most : _detect(); }

    /// For tests: false makes every kernel use its plain form; true uses what the processor has.
    static void allow_avx2(bool allowed) noexcept { allow(allowed ? Form::avx512 : Form::plain); }

private:
    static Form _detect() noexcept
    {
#if defined(__x86_64__)
        if (__builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("avx512vbmi")
            && __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512bw")
            && __builtin_cpu_supports("avx512vl"))
            return Form::avx512;
        return __builtin_cpu_supports("avx2") ? Form::avx2 : Form::plain;
#else
        return Form::plain;
#endif
    }
    static std::atomic<Form>& _form() noexcept
    {
        static std::atomic<Form> used { _detect() };
        return used;
    }
};

} // namespace vexo
