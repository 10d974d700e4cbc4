// The n-th allocation of an operation fails, for every n: the answer is null or false, nothing escapes, nothing is
// lost, and the same operation works afterwards. Operator new and posix_memalign are replaced; they are all that the
// library and OpenCV's core allocate with, once OpenCV is told not to use malloc. malloc of C libraries (picture
// formats, the OpenMP runtime) is not.

#include "support/child.h"
#include "support/samples.h"
#include "support/station.h"

#include <atomic>
#include <cerrno>

using namespace vexo;
using namespace hard;
using namespace board_photos;

namespace {

std::atomic<long> countdown { 0 };             ///< 1: the next allocation fails; below: none does
std::atomic<long> living { 0 };                ///< blocks from operator new
std::atomic<std::size_t> largest { SIZE_MAX }; ///< bytes; a larger block of OpenCV's is never there

bool fails_now() noexcept
{
    return countdown.load(std::memory_order_relaxed) > 0 && countdown.fetch_sub(1) == 1;
}

// Not inlined: GCC would take the malloc and free of a replaced operator for a mismatch.
[[gnu::noinline]] void* allocate(std::size_t bytes) noexcept
{
    if (fails_now()) return nullptr;
    void* block = std::malloc(bytes == 0 ? 1 : bytes);
    if (block != nullptr) ++living;
    return block;
}

[[gnu::noinline]] void release(void* block) noexcept
{
    if (block != nullptr) --living;
    std::free(block);
}

} // namespace

void* operator new(std::size_t bytes)
{
    if (void* block = allocate(bytes)) return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t bytes)
{
    return operator new(bytes);
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    return allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept
{
    return allocate(bytes);
}
void operator delete(void* block) noexcept
{
    release(block);
}
void operator delete[](void* block) noexcept
{
    release(block);
}
void operator delete(void* block, std::size_t) noexcept
{
    release(block);
}
void operator delete[](void* block, std::size_t) noexcept
{
    release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept // when a constructor throws
{
    release(block);
}

extern "C" void* __libc_memalign(std::size_t alignment, std::size_t bytes); // NOLINT(bugprone-reserved-identifier)
extern "C" int posix_memalign(void** block, std::size_t alignment, std::size_t bytes)
{
    *block = bytes > largest || fails_now() ? nullptr : __libc_memalign(alignment, bytes);
    return *block == nullptr ? ENOMEM : 0;
}

namespace {

/// Objects that operations work on, made in the child where they are used.
struct Bench {
    Bench()
    {
        bool good = know_board(*board) && know_board(*one) && know_board(*pair) && give_views(*one, *pair);
        for (int g = 0; g < 3; ++g)
            good = measure_new(g) && good;
        CameraCalibParam calibration = calibration_param();
        RectifyParam rectify;
        if (!good || !pair->do_calibrate(calibration, nullptr, nullptr)
            || !(pair->create_stereo_camera(rectify, nullptr, nullptr) > 0))
            std::abort();
    }

    bool measure_new(int g)
    {
        generators[g] = made_generator(g, camera.get());
        const auto frames = [g](int cam) -> const Frames& { return plane_frames(g, cam); };
        return generators[g] && rig::put_frames(*generators[g], frames) && measure(g);
    }
    bool measure(int g)
    {
        if (!generators[g]) return false;
        // Inside cv::StereoSGBM a failed allocation ends the process, in BufferArea's destructor: it must not get
        // there.
        if (g == 0) return refused_for_its_size(*generators[0]) && (countdown > 0 || generators[0]->exec());
        return measured_points(*generators[g]) > 0;
    }

    static bool refused_for_its_size(iPointCloudGenerator& block_matching)
    {
        largest = 100000;
        const bool refused = !block_matching.exec();
        largest = SIZE_MAX;
        return refused;
    }

    rig::Camera camera = rig::make_camera();
    Owned<iPointCloudGenerator> generators[3];
    Owned<iCalibBoardRecognizer> board { CreateCalibBoardRecognizer() };
    Owned<iCameraCalibrator> one { CreateCameraCalibrator() };
    Owned<iStereoCalibrator> pair { CreateStereoCalibrator() };
    cv::Mat picture = board_photo(0, 3);
};

struct Operation {
    const char* name;
    bool (*run)(Bench&);       ///< false or null: refused
    bool opencv_leaks = false; ///< cv::calibrateCamera loses matrices when it throws
};

template <class Object> bool made(Object* object)
{
    return Owned<Object>(object) != nullptr;
}

bool from_files(int selector, const std::vector<std::string>& files)
{
    const StereoCameraParam p = sample_param();
    return made(CreateStereoCamera(selector, &files, &p));
}

bool recognise(Bench& b)
{
    std::vector<cv::Point2f> points;
    return b.board->recognize(b.picture, points) == 0;
}

bool pair_up(Bench& b)
{
    std::vector<cv::Point2f> image;
    std::vector<cv::Point3f> on_board;
    static const std::vector<cv::Point2f> points(99); // as many as the board has
    return b.board->corresponding_points(points, image, on_board) == 99 && !b.board->get_error_name(5).empty();
}

bool put_in_new(Bench& b)
{
    const Owned<iStereoCalibrator> calibrator(CreateStereoCalibrator());
    return calibrator && know_board(*calibrator)
        && calibrator->put_image(1, b.picture.data, b.picture.cols, b.picture.rows, b.picture.step[0], false, "") == 0;
}

bool calibrate_one(Bench& b)
{
    CameraCalibParam p = calibration_param();
    std::vector<double> errors;
    double rms = 0;
    return b.one->do_calibrate(p, &errors, &rms);
}

bool rectify(Bench& b)
{
    RectifyParam p;
    return b.pair->create_stereo_camera(p, nullptr, nullptr) > 0;
}

/// Strings that go in are the host's to allocate. File names lie in the working directory: short ones need no memory.
const std::vector<std::string> pair_file { "cams.yaml" }, hmat_files { "p0.hmat", "p1.hmat", "tables.bin" };
const Operation operations[] = {
    { "CreateStereoCamera 2", [](Bench&) { return from_files(2, pair_file); } },
    { "CreateStereoCamera 1", [](Bench&) { return from_files(1, hmat_files); } },
    { "CreateStereoCameraFromRaw", [](Bench&) { return rig::make_camera() != nullptr; } },
    { "CreatePointCloudGenerator 0", [](Bench&) { return made(CreatePointCloudGenerator(0)); } },
    { "CreatePointCloudGenerator 1", [](Bench&) { return made(CreatePointCloudGenerator(1)); } },
    { "CreatePointCloudGenerator 2", [](Bench&) { return made(CreatePointCloudGenerator(2)); } },
    { "CreateCalibBoardRecognizer", [](Bench&) { return made(CreateCalibBoardRecognizer()); } },
    { "CreateCameraCalibrator", [](Bench&) { return made(CreateCameraCalibrator()); } },
    { "CreateStereoCalibrator", [](Bench&) { return made(CreateStereoCalibrator()); } },
    { "block matching without room for it", [](Bench& b) { return b.measure_new(0); } },
    { "gray code + phase, new", [](Bench& b) { return b.measure_new(1); } },
    { "multi-period, new", [](Bench& b) { return b.measure_new(2); } },
    { "gray code + phase, again", [](Bench& b) { return b.measure(1); } },
    { "multi-period, again", [](Bench& b) { return b.measure(2); } },
    { "recognize", recognise },
    { "corresponding_points", pair_up },
    { "put_image of a new calibrator", put_in_new },
    { "set_parameters", [](Bench& b) { return know_board(*b.board); } },
    { "do_calibrate, one camera", calibrate_one, true },
    { "create_stereo_camera", rectify },
    { "save_calibfile", [](Bench& b) { return b.pair->save_calibfile("c0.yaml", ""); } },
    { "save_stereofile", [](Bench& b) { return b.pair->save_stereofile("s.yaml", "", ""); } },
    { "save_stereohmat", [](Bench& b) { return b.pair->save_stereohmat("h0", "h1", "h2", false); } },
    { "save_boardRT", [](Bench& b) { return b.pair->save_boardRT("b.yaml"); } },
    { "convert_coordinate", [](Bench& b) { return b.generators[0]->convert_coordinate("rt.yaml"); } },
};
constexpr long operation_count = sizeof operations / sizeof operations[0];

/// Runs an operation with its n-th allocation failing.
/// @param reached  out: whether there was an n-th allocation
bool fails_at(Bench& bench, const Operation& operation, long n, bool& reached)
{
    countdown = n;
    bool good = false;
    try {
        good = operation.run(bench);
    } catch (...) {
        countdown = 0;
        throw;
    }
    reached = countdown.load() <= 0;
    countdown = 0;
    return good;
}

const char* message(const Operation& operation, long n, const char* fault)
{
    static char text[200];
    std::snprintf(text, sizeof text, "%s, allocation %ld: %s", operation.name, n, fault);
    return text;
}

/// Blocks that stay after `times` failures at n.
long growth(Bench& bench, const Operation& operation, long n, int times)
{
    const long before = living;
    bool reached = false;
    for (int i = 0; i < times; ++i)
        fails_at(bench, operation, n, reached);
    operation.run(bench);
    return living - before;
}

int picture_fails_without_memory()
{
    largest = 0;
    try {
        const cv::Mat refused(9, 9, CV_8U);
        return 1;
    } catch (const cv::Exception&) {
        return 0;
    }
}

/// Every `stride`-th allocation of one operation.
const char* attack(const Operation& operation, long stride, long first, long& tried)
{
    static Bench bench;         // of the child
    for (int i = 0; i < 3; ++i) // caches fill
        if (!operation.run(bench)) return message(operation, 0, "does not work at all");
    bool reached = true;
    for (long n = 1 + first % stride; reached; n += stride, ++tried) {
        try {
            fails_at(bench, operation, n, reached);
        } catch (const std::exception& e) {
            return message(operation, n, e.what());
        }
        if (!operation.run(bench)) return message(operation, n, "does not work afterwards");
        if (!operation.opencv_leaks && n % 5 == 1 && growth(bench, operation, n, 1) > 0
            && growth(bench, operation, n, 8) >= 8)
            return message(operation, n, "memory is lost");
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    if (std::getenv("OPENCV_ENABLE_MEMALIGN") == nullptr) { // OpenCV asks for it before main() begins
        setenv("OPENCV_ENABLE_MEMALIGN", "1", 1);
        execv("/proc/self/exe", argv);
    }
    if (in_child(picture_fails_without_memory) != 0) {
        std::puts("memory: OpenCV allocates past this program, so nothing of its would be tried");
        return 1;
    }
    const Options options(argc, argv);
    const Folder folder;
    if (in_child([&] { return write_samples(folder) ? 0 : 1; }) != 0) return 1;
    if (chdir((folder / "").c_str()) != 0) return 1;
    const bool every = options.seconds > 0;
    auto* tried = static_cast<long*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const long found = run_trials(
        "memory: operations with failing allocations", argv[0], options, operation_count,
        [&](long i) { return attack(operations[i], every ? 1 : 7, static_cast<long>(options.seed), *tried); },
        { every ? 600.0 : 60.0, std::size_t { 3 } << 30 }, true);
    std::printf("memory: %ld allocations failed\n", *tried); // NOLINT(clang-analyzer-unix.Malloc): mapped until the end
    return found == 0 ? 0 : 1;
}
