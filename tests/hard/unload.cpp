// A host that links neither libvexo.so nor OpenMP: it loads the library, measures on several threads, and lets it go,
// again and again. The runtime's idle threads must find their code where they left it.

#include "support/run.h"
#include "vexo/vexo.h"

#include <cmath>

#include <dlfcn.h>

using namespace vexo;
using namespace hard;

namespace {

constexpr int width = 160, height = 120;
constexpr double focal_px = 200, baseline_mm = 50;

/// Decoded data of the plane Z = 500 mm: lit and dark pictures, number and part of the fringe that each pixel sees.
bool give_plane(iPointCloudGenerator& generator)
{
    bool taken = true;
    for (int cam = 0; cam < 2; ++cam) {
        cv::Mat data[]
            = { cv::Mat(height, width, CV_8U, cv::Scalar(20)), cv::Mat(height, width, CV_8U, cv::Scalar(220)),
                  cv::Mat(height, width, CV_8U), cv::Mat(height, width, CV_32F) };
        for (int x = 0; x < width; ++x) {
            const double fringe = (x + 300 + cam * focal_px * baseline_mm / 500) / 8;
            data[2].col(x) = std::floor(fringe);
            data[3].col(x) = fringe - std::floor(fringe);
        }
        for (int i = 0; i < 4; ++i)
            taken = generator.setpict(data[i].data, 0, cam, i) && taken;
    }
    return taken;
}

/// One life of the library. @return whether it measured something
bool load_measure_and_unload()
{
    void* library = dlopen(VEXO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return false;
    auto* const create_camera
        = reinterpret_cast<decltype(CreateStereoCameraFromRaw)*>(dlsym(library, "CreateStereoCameraFromRaw"));
    auto* const create_generator
        = reinterpret_cast<decltype(CreatePointCloudGenerator)*>(dlsym(library, "CreatePointCloudGenerator"));
    const double K[] = { focal_px, 0, width / 2.0, 0, focal_px, height / 2.0, 0, 0, 1 };
    const double D[5] = {}, R[] = { 1, 0, 0, 0, 1, 0, 0, 0, 1 }, T[] = { -baseline_mm, 0, 0 };
    StereoCameraParam param;
    param.inp_width = width;
    param.inp_height = height;
    bool measured = false;
    {
        const Owned<iStereoCamera> camera(create_camera(K, D, K, D, R, T, &param));
        const Owned<iPointCloudGenerator> generator(create_generator(1));
        GrayPhaseMatchingParam record;
        record.anchor_length = 2;
        record.datatype = 1;
        generator->init(camera.get());
        measured = generator->setparams(&record) && give_plane(*generator) && generator->exec();
        generator->genPC(iPointCloudGenerator::MethodQ, true);
        measured = measured && generator->get_pointcloud(nullptr) > 1000;
    }
    return dlclose(library) == 0 && measured;
}

int fault(const char* what, int cycle)
{
    std::printf("  FOUND %s, cycle %d\n", what, cycle);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options(argc, argv);
    const long cycles = options.trials > 0 ? options.trials : 30;
    constexpr int warm_up = 5, threads_asked = 3;
    constexpr long largest_growth_kb = 2048;
    setenv("OMP_NUM_THREADS", std::to_string(threads_asked).c_str(), 1); // before the runtime is loaded
    const long threads_before = entries("/proc/self/task");
    if (std::freopen("/dev/null", "w", stderr) == nullptr) return 1; // setparams() says its name
    const Clock clock;
    long memory = 0, threads = 0;
    for (int i = 0; i < warm_up + cycles; ++i) {
        if (!load_measure_and_unload()) return fault("no measurement", i);
        if (i == warm_up - 1) {
            memory = resident_kb();
            threads = entries("/proc/self/task");
            if (threads < threads_before + threads_asked - 1) return fault("it measures on fewer threads", i);
        }
        if (i >= warm_up && entries("/proc/self/task") != threads) return fault("another number of threads", i);
    }
    if (resident_kb() - memory >= largest_growth_kb) return fault("memory grows", static_cast<int>(cycles));
    report("unload: dlopen, measure, dlclose", cycles, 0, clock);
    return 0;
}
