// What the first measurement of a process costs against later ones: fresh memory has to be mapped and cleared, threads
// have to begin. Page faults and time of each call, of the first measurement and of the median of later ones.
//
//     vexo_first [--threads N] [--method gray|multi] [--rounds N] [--size WxH]
#include "capture.h"

#include <omp.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>

namespace {

using namespace bench;

/// What a call has cost.
struct Cost {
    double ms = 0.0;     ///< wall clock
    double cpu_ms = 0.0; ///< of all threads
    double faults = 0.0;
};

using Calls = std::array<Cost, 4>; ///< setpict, exec, genPC, all of them
constexpr std::array<const char*, 4> names { "setpict", "exec", "genPC", "all" };

double ms_of(const timeval& t)
{
    return 1e3 * static_cast<double>(t.tv_sec) + 1e-3 * static_cast<double>(t.tv_usec);
}

Cost cost_of(const std::function<bool()>& call)
{
    rusage before {}, after {};
    getrusage(RUSAGE_SELF, &before);
    const auto begin = std::chrono::steady_clock::now();
    if (!call()) throw std::runtime_error("the measurement fails");
    const std::chrono::duration<double, std::milli> passed = std::chrono::steady_clock::now() - begin;
    getrusage(RUSAGE_SELF, &after);
    return { passed.count(),
        ms_of(after.ru_utime) + ms_of(after.ru_stime) - ms_of(before.ru_utime) - ms_of(before.ru_stime),
        static_cast<double>(after.ru_minflt - before.ru_minflt) };
}

Calls measure(vexo::iPointCloudGenerator& generator, const Capture& capture)
{
    Calls calls { cost_of([&] { return put_frames(generator, capture); }), cost_of([&] { return generator.exec(); }),
        cost_of([&] {
            generator.genPC(vexo::iPointCloudGenerator::MethodQ, false);
            return generator.get_pointcloud(nullptr) > 0;
        }) };
    for (std::size_t i = 0; i < 3; ++i)
        calls[3] = { calls[3].ms + calls[i].ms, calls[3].cpu_ms + calls[i].cpu_ms, calls[3].faults + calls[i].faults };
    return calls;
}

double median(const std::vector<Calls>& rounds, std::size_t call, double Cost::*part)
{
    std::vector<double> values;
    for (const Calls& calls : rounds)
        values.push_back(calls[call].*part);
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

void compare(Method method, cv::Size size, int rounds)
{
    const Capture capture = make_capture(method, size);
    const auto generator = make_generator(capture);
    const Calls first = measure(*generator, capture);
    std::vector<Calls> later;
    for (int i = 0; i < rounds; ++i)
        later.push_back(measure(*generator, capture));
    std::printf("| %-8s | %12s | %9s | %12s | %9s | %12s | %12s |\n|---|---|---|---|---|---|---|\n", "call",
        "first faults", "first, ms", "later faults", "later, ms", "first / later", "the same, CPU");
    for (std::size_t i = 0; i < names.size(); ++i) {
        const double ms = median(later, i, &Cost::ms), cpu_ms = median(later, i, &Cost::cpu_ms);
        std::printf("| %-8s | %12.0f | %9.2f | %12.0f | %9.2f | %13.2f | %13.2f |\n", names[i], first[i].faults,
            first[i].ms, median(later, i, &Cost::faults), ms, first[i].ms / ms, first[i].cpu_ms / cpu_ms);
    }
}

} // namespace

int main(int argc, char** argv)
{
    int threads = 1, rounds = 20;
    Method method = Method::gray_phase;
    cv::Size size(1280, 1024);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--threads") threads = std::max(1, std::atoi(argv[i + 1]));
        if (option == "--rounds") rounds = std::max(1, std::atoi(argv[i + 1]));
        if (option == "--size") std::sscanf(argv[i + 1], "%dx%d", &size.width, &size.height);
        if (option == "--method" && std::strcmp(argv[i + 1], "multi") == 0) method = Method::multi_phase;
    }
    omp_set_num_threads(threads);
    std::printf("threads: %d; later: the median of %d\n", threads, rounds);
    try {
        compare(method, size, rounds);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
