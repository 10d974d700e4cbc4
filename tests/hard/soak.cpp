// Months in short: measuring again and again, with new objects and with the same ones. Memory, descriptors and
// threads must end where they began.

#include "support/child.h"
#include "support/samples.h"

using namespace vexo;
using namespace hard;

namespace {

/// Everything that a measurement needs, of all three methods.
class Station {
public:
    Station()
        : _camera(rig::make_camera())
    {
        SGBMatchingParam sgbm;
        sgbm.numDisparities = 64;
        GrayPhaseMatchingParam gray;
        gray.max_phase_diff = 0.15;
        gray.anchor_length = 2;
        MultiPhaseMatchingParam multi;
        void* const records[] = { &sgbm, &gray, &multi };
        for (int g = 0; g < 3; ++g) {
            _generators[g].reset(CreatePointCloudGenerator(g));
            _generators[g]->init(_camera.get());
            _generators[g]->setparams(records[g]);
        }
    }

    /// @return whether every method measured something
    bool measure()
    {
        static const std::vector<cv::Mat> frames[3][2] = { { rig::gray_phase_frames(0), rig::gray_phase_frames(1) },
            { rig::gray_phase_frames(0), rig::gray_phase_frames(1) },
            { rig::multi_phase_frames(0), rig::multi_phase_frames(1) } };
        bool good = true;
        for (int g = 0; g < 3; ++g) {
            for (int cam = 0; cam < 2; ++cam)
                for (int i = 0; i < _generators[g]->requiredframes(); ++i) {
                    const cv::Mat& frame = frames[g][cam][static_cast<std::size_t>(i)];
                    good = _generators[g]->setpict(frame.data, frame.step[0], cam, i) && good;
                }
            good = _generators[g]->exec() && good;
            _generators[g]->genPC(iPointCloudGenerator::MethodQ, true);
            good = (g == 0 || _generators[g]->get_pointcloud(nullptr) > 1000) && good;
        }
        return good;
    }

private:
    rig::Camera _camera; // outlives the generators
    Owned<iPointCloudGenerator> _generators[3];
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
