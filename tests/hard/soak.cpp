// Months in short: measuring again and again, with new objects and with the same ones. Memory, descriptors and
// threads must end where they began.

#include "support/child.h"
#include "support/station.h"

using namespace vexo;
using namespace hard;

namespace {

/// Everything that a measurement needs, of all three methods.
struct Station {
    /// @return whether every method measured something
    bool measure() const
    {
        bool good = true;
        for (int g = 0; g < 3; ++g) {
            const auto frames = [g](int cam) -> const Frames& { return plane_frames(g, cam); };
            good = rig::put_frames(*generators[g], frames) && good;
            good = measured_points(*generators[g]) > (g == 0 ? -1 : 1000) && good;
        }
        return good;
    }

    rig::Camera camera = rig::make_camera(); // outlives the generators
    Owned<iPointCloudGenerator> generators[3] { made_generator(0, camera.get()), made_generator(1, camera.get()),
        made_generator(2, camera.get()) };
};

const char* soak(bool anew, long rounds)
{
    constexpr long warm_up = 20, largest_growth_kb = 2048;
    Station kept;
    long memory = 0, descriptors = 0, threads = 0;
    for (long i = 0; i < warm_up + rounds; ++i) {
        if (i == warm_up) {
            memory = resident_kb();
            descriptors = entries("/proc/self/fd");
            threads = entries("/proc/self/task");
        }
        const bool good = anew ? Station().measure() : kept.measure();
        if (!good) return "a measurement failed";
    }
    if (entries("/proc/self/fd") != descriptors) return "a descriptor is left open";
    if (entries("/proc/self/task") != threads) return "a thread is left";
    return resident_kb() - memory < largest_growth_kb ? nullptr : "memory grows";
}

} // namespace

int main(int argc, char** argv)
{
    const Options options(argc, argv);
    const long rounds = options.seconds > 0 ? 5000 : options.trials > 0 ? options.trials : 50;
    Limits limits;
    limits.seconds = 3600;
    const long found = run_trials(
        "soak: new objects; one object again and again", argv[0], options, 2,
        [&](long i) { return soak(i == 0, rounds); }, limits, true);
    std::printf("soak: %ld rounds of three measurements each\n", rounds);
    return found == 0 ? 0 : 1;
}
