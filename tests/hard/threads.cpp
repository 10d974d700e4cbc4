// The same bits on any number of threads, inside the host's own parallel region, under a thread limit, with memory
// that was filled before it was handed out, for generators that share a camera on two threads, and in a
// child that was forked before the first use or that became another program.

#include "support/child.h"
#include "support/station.h"

#include <malloc.h>
#include <omp.h>

using namespace vexo;
using namespace hard;
using namespace board_photos;

namespace {

/// FNV-1a, 64 bits.
struct Digest : PointCloudCallback {
    uint64_t hash = 14695981039346656037ULL;

    void add(const void* bytes, std::size_t size)
    {
        const auto* b = static_cast<const uint8_t*>(bytes);
        for (std::size_t i = 0; i < size; ++i)
            hash = (hash ^ b[i]) * 1099511628211ULL;
    }
    void receive(unsigned char* texture, std::size_t step, int w, int h, cv::Point3_<float>* points, int count) override
    {
        for (int y = 0; texture != nullptr && y < h; ++y)
            add(texture + static_cast<std::size_t>(y) * step, static_cast<std::size_t>(w));
        add(points, sizeof(cv::Point3f) * static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
        add(&count, sizeof count);
    }
};

uint64_t measure(iStereoCamera* camera, int g)
{
    const Owned<iPointCloudGenerator> generator = made_generator(g, camera);
    cv::RNG rng(static_cast<uint64>(g) + 1);
    const auto noisy = [&](int cam) { // so that rows differ
        Frames frames;
        for (const cv::Mat& frame : plane_frames(g, cam)) {
            cv::Mat noise(frame.size(), CV_8S);
            rng.fill(noise, cv::RNG::UNIFORM, -6, 7);
            cv::add(frame, noise, frames.emplace_back(), cv::noArray(), CV_8U);
        }
        return frames;
    };
    if (!rig::put_frames(*generator, noisy)) std::abort();
    Digest digest;
    for (const bool interpolate : { false, true }) {
        if (!generator->exec()) std::abort();
        generator->genPC(iPointCloudGenerator::MethodQ, interpolate);
        if (generator->get_pointcloud(&digest) < 1) std::abort();
    }
    return digest.hash;
}

uint64_t recognise()
{
    cv::Mat picture = board_photo(0, 0);
    const Owned<iCalibBoardRecognizer> recogniser(CreateCalibBoardRecognizer());
    std::vector<cv::Point2f> points;
    if (!know_board(*recogniser) || recogniser->recognize(picture, points) != 0) std::abort();
    Digest digest;
    digest.add(points.data(), points.size() * sizeof(cv::Point2f));
    return digest.hash;
}

/// Digest of everything; `inside` measures inside a parallel region of the host, all methods at once.
uint64_t digest_of_all(bool inside)
{
    const rig::Camera camera = rig::make_camera(9, 0.02); // shared by all
    uint64_t hashes[4] = {};
    const auto work = [&](int k) { hashes[k] = k < 3 ? measure(camera.get(), k) : recognise(); };
    if (inside) {
#pragma omp parallel for num_threads(4) schedule(static, 1) // each writes its own hash
        for (int k = 0; k < 4; ++k)
            work(k);
    } else {
        for (int k = 0; k < 4; ++k)
            work(k);
    }
    Digest all;
    all.add(hashes, sizeof hashes);
    return all.hash;
}

/// What this process alone prints. @param how  "plain"; "nested": inside the host's parallel region; "forked": in a
/// child that was forked before the first use; "exec": in a program that a child forked after use becomes
int print_digest(const std::string& how, const char* program)
{
    if (how == "forked") return in_child([&] { return print_digest("plain", program); });
    const uint64_t digest = digest_of_all(how == "nested");
    if (how == "exec") return in_child([&] { return execl(program, program, "--digest", "plain", nullptr); });
    std::printf("%016llx\n", static_cast<unsigned long long>(digest));
    return std::fflush(stdout);
}

/// Runs this program anew under an environment. @return its digest
std::string run(const std::string& environment, const std::string& program, const std::string& how)
{
    const std::string command = environment + " timeout 900 '" + program + "' --digest " + how + " 2>/dev/null";
    std::FILE* pipe = popen(command.c_str(), "r");
    char text[64] = "";
    if (pipe == nullptr || std::fgets(text, sizeof text, pipe) == nullptr) text[0] = '\0';
    return pipe != nullptr && pclose(pipe) == 0 ? text : "failed";
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "--digest") return print_digest(argv[2], argv[0]);
    const Clock clock;
    const char* const environments[]
        = { "OMP_NUM_THREADS=1", "OMP_NUM_THREADS=2", "OMP_NUM_THREADS=4", "OMP_NUM_THREADS=7", "OMP_THREAD_LIMIT=1",
              "OMP_DYNAMIC=true", "OMP_MAX_ACTIVE_LEVELS=3", "GLIBC_TUNABLES=glibc.malloc.perturb=85",
              "GLIBC_TUNABLES=glibc.malloc.perturb=128", "GLIBC_TUNABLES=glibc.malloc.perturb=170",
              "GLIBC_TUNABLES=glibc.malloc.perturb=254", "GLIBC_TUNABLES=glibc.malloc.perturb=255" };
    const std::string expected = run("", argv[0], "plain");
    long tried = 0, found = expected == "failed" ? 1 : 0;
    for (const char* environment : environments)
        for (const char* how : { "plain", "nested", "forked", "exec" }) {
            ++tried;
            const std::string got = run(environment, argv[0], how);
            if (got == expected) continue;
            ++found;
            std::printf("  FOUND other bits    repeat: %s %s --digest %s\n", environment, argv[0], how);
        }
    report("threads: 1 2 4 7, nested, limited, memory, fork: same bits", tried, found, clock);
    return found == 0 ? 0 : 1;
}
