// Measures a small capture on one thread, for count.sh: what callgrind counts is one chain after the first.
#include "base/cpu.h"
#include "support/small_chain.h"

#include <opencv2/core/utility.hpp>

#include <iostream>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else // valgrind is not installed, and count.sh skips
#define CALLGRIND_START_INSTRUMENTATION
#define CALLGRIND_STOP_INSTRUMENTATION
#endif

int main()
{
    cv::setNumThreads(1); // those of OpenMP are said by the environment
    vexo::SmallChain chain(vexo::Method::gray_phase, "sphere");
    const int first = chain.run(nullptr); // which takes its memory and makes its tables
    CALLGRIND_START_INSTRUMENTATION;
    const int points = chain.run(nullptr);
    CALLGRIND_STOP_INSTRUMENTATION;
    const char* const names[] = { "plain", "avx2", "avx512" };
    std::cout << "form " << names[static_cast<int>(vexo::Cpu::form())] << '\n';
    return first > 0 && points == first ? 0 : 1;
}
