// A host that lets floating-point exceptions end it: division by zero, invalid operations and overflow trap while it
// does everything that a host does. Our own code raises none of them; each that OpenCV raises is counted and let pass,
// by one instruction with the exceptions masked.

#include "support/loaders.h"
#include "support/run.h"
#include "support/station.h"

#include <atomic>
#include <cfenv>
#include <csignal>
#include <utility>

#include <dlfcn.h>
#include <ucontext.h>

using namespace vexo;
using namespace hard;
using namespace board_photos;

namespace {

constexpr int trapped = FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW;
constexpr unsigned long single_step = 0x100; // trap flag of the processor
const char* step_name = "";
std::atomic<long> raised_by_opencv { 0 };

void set_mask(ucontext_t* context, bool masked)
{
    auto* fp = context->uc_mcontext.fpregs;
    const unsigned sse = static_cast<unsigned>(trapped) << 7U;
    fp->mxcsr = (masked ? fp->mxcsr | sse : fp->mxcsr & ~sse) & ~0x3FU;
    fp->cwd = static_cast<uint16_t>(masked ? fp->cwd | trapped : fp->cwd & ~trapped);
    fp->swd = static_cast<uint16_t>(fp->swd & ~0x80FF);
    auto& flags = context->uc_mcontext.gregs[REG_EFL];
    flags = masked ? flags | static_cast<long>(single_step) : flags & ~static_cast<long>(single_step);
}

void on_trap(int, siginfo_t* info, void* context)
{
    Dl_info at = {};
    dladdr(info->si_addr, &at);
    const std::string file = at.dli_fname == nullptr ? "?" : at.dli_fname;
    const bool beneath_us = file.find("/libopencv") != std::string::npos || file.find("/liblapack") != std::string::npos
        || file.find("/libblas") != std::string::npos;
    if (!beneath_us) {
        std::printf("  FOUND %s: a trap at %s+0x%zx\n", step_name, file.c_str(),
            static_cast<std::size_t>(static_cast<char*>(info->si_addr) - static_cast<char*>(at.dli_fbase)));
        std::fflush(stdout);
        _exit(1);
    }
    ++raised_by_opencv;
    set_mask(static_cast<ucontext_t*>(context), true);
}

void after_one_instruction(int, siginfo_t*, void* context)
{
    set_mask(static_cast<ucontext_t*>(context), false);
}

void install(int signal, void (*handler)(int, siginfo_t*, void*))
{
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(signal, &action, nullptr);
}

// --- what a host does ----------------------------------------------------------------------------------------

bool cameras_from_files(const Folder& folder)
{
    bool good = true;
    for (auto* load : { load_pair, load_hmat_set, load_stereo, load_transform }) {
        const Outcome outcome = load(Paths(folder, "", ""));
        good = good && outcome.taken && outcome.fault == nullptr;
    }
    return good;
}

/// All methods on frames of both cameras. @return points of the last cloud, negative: the frames were refused
int measure(int g, int datatype, const Frames& left, const Frames& right, double toe_in)
{
    const rig::Camera camera = rig::make_camera(7, toe_in);
    const Owned<iPointCloudGenerator> generator(CreatePointCloudGenerator(g));
    generator->init(camera.get());
    Records records;
    records.gray.datatype = records.multi.datatype = datatype;
    records.gray.fit_points = records.multi.fit_points = toe_in > 0 ? 3 : 5;
    std::vector<double> frame { 0.8, -0.6, 0, 12.5, 0.6, 0.8, 0, -3.25, 0, 0, 1, 400.0, 0, 0, 0, 1 };
    const bool good = generator->setparams(records[g]) && generator->convert_coordinate(frame)
        && rig::put_frames(*generator, [&](int cam) { return cam == 0 ? left : right; }) && generator->exec();
    for (const int method : { 1, 2, 0 })
        for (const bool interpolate : { false, true })
            generator->genPC(static_cast<iPointCloudGenerator::Method3D>(method), interpolate);
    return good ? generator->get_pointcloud(nullptr) : -1;
}

/// Decoded data as the phase matchers load it, with phases that are no numbers.
Frames decoded(int g)
{
    cv::Mat code(rig::height, rig::width, CV_8U);
    for (int x = 0; x < rig::width; ++x)
        code.col(x) = x / 8;
    Frames frames { code * 0 + 20, code * 0 + 220 };
    if (g == 1) frames.push_back(code);
    const float wild[] = { NAN, HUGE_VALF, -HUGE_VALF, 1e38F, -1e38F, 0.0F };
    for (int n = g == 1 ? 1 : 3; n > 0; --n) {
        cv::Mat_<float> phase(rig::height, rig::width);
        for (int y = 0; y < phase.rows; ++y)
            for (int x = 0; x < phase.cols; ++x)
                phase(y, x) = (x + y) % 7 == 0 && y % 2 == 0 ? wild[(x + n) % 6] : static_cast<float>(x % 8) / 8.0F;
        frames.push_back(phase);
    }
    return frames;
}

bool measurements(int g)
{
    const Frames seen[] = { plane_frames(g, 0), plane_frames(g, 1) };
    Frames noise, black, white;
    for (const cv::Mat& frame : seen[0]) {
        noise.push_back(frame.clone());
        cv::randu(noise.back(), 0, 256);
        black.push_back(frame * 0);
        white.push_back(frame * 0 + 255);
    }
    bool good = measure(g, 0, seen[0], seen[1], 0.0) > (g == 0 ? -1 : 1000);
    for (const double toe_in : { 0.0, 0.05 }) {
        for (const Frames& both : { seen[0], noise, black, white }) // without toe-in some are infinitely far
            good = good && measure(g, 0, both, both, toe_in) >= 0;
        good = good && (g == 0 || measure(g, 1, decoded(g), decoded(g), toe_in) >= 0);
    }
    return good;
}

/// The board and pictures without one, prepared in each way.
bool boards(cv::Mat board)
{
    cv::Mat noise = board.clone(), black = board * 0;
    cv::randu(noise, 0, 256);
    std::vector<cv::Point2f> points;
    bool good = true;
    for (int mode = 0; mode < 3; ++mode)
        for (const double gamma : { 0.0, 0.5, 1.0 }) {
            PreProcParam pre;
            pre.binarize_mode = mode;
            pre.threshold = mode == 2 ? 51 : 140;
            pre.gamma = gamma;
            pre.equalize = pre.median = gamma == 0.5;
            const Owned<iCalibBoardRecognizer> recognizer(CreateCalibBoardRecognizer());
            good = good && know_board(*recognizer, pre);
            for (cv::Mat picture : { noise, black, board })
                for (int kind = recognizer->recognize(picture, points); kind < 5; ++kind)
                    recognizer->copy_result_image(picture, kind);
            good = good && (gamma == 0.0 || !points.empty());
        }
    return good;
}

bool calibration(const Folder& folder)
{
    const Owned<iCameraCalibrator> one(CreateCameraCalibrator());
    const Owned<iStereoCalibrator> pair(CreateStereoCalibrator());
    PreProcParam pre;
    pre.gamma = 1.2;
    pre.median = true;
    bool good = know_board(*one, pre) && know_board(*pair, pre) && give_views(*one, *pair);
    for (int cam = 0; cam < 2; ++cam) { // packed rows, and with a picture of the result
        cv::Mat p = board_photo(cam, 0);
        good = good && pair->put_image(cam, p.data, p.cols, p.rows, 0, false, folder / "result.png") == 0;
    }
    CameraCalibParam param = calibration_param();
    std::vector<double> errors;
    double rms = 0;
    RectifyParam rectify;
    return good && one->do_calibrate(param, &errors, &rms) && one->save_calibfile(folder / "c.yaml", "left")
        && pair->do_calibrate(param, nullptr, nullptr) && pair->create_stereo_camera(rectify, nullptr, nullptr) > 0
        && pair->create_stereo_brdcrd(board_photo(0, 0).data, 0, board_photo(1, 0).data, 0)
        && pair->save_calibfile(folder / "cc.yaml", "") && pair->save_boardRT(folder / "rt2.yaml")
        && pair->save_stereofile(folder / "s.yaml", folder / "m0", folder / "m1")
        && pair->save_stereohmat(folder / "h0", folder / "h1", folder / "h2", true);
}

} // namespace

int main()
{
    const Clock clock;
    const Folder folder;
    if (!write_samples(folder)) return 1;
    const cv::Mat board = small_photo(); // the virtual rig is no part of this
    board_photo(0, 0);
    for (const int g : { 0, 1, 2 })
        plane_frames(g, 0);
    install(SIGFPE, on_trap);
    install(SIGTRAP, after_one_instruction);
    feenableexcept(trapped); // threads made from here on inherit it
    const std::pair<const char*, std::function<bool()>> steps[] = {
        { "cameras from files", [&] { return cameras_from_files(folder); } },
        { "block matching", [] { return measurements(0); } },
        { "gray code", [] { return measurements(1); } },
        { "multi-period", [] { return measurements(2); } },
        { "boards", [&] { return boards(board); } },
        { "calibration", [&] { return calibration(folder); } },
    };
    for (const auto& [name, run] : steps) {
        step_name = name;
        raised_by_opencv = 0;
        if (!run()) {
            std::printf("  FOUND %s does not work with traps\n", name);
            return 1;
        }
        if (raised_by_opencv > 0) std::printf("  %s: OpenCV raises %ld\n", name, raised_by_opencv.load());
    }
    report("traps: floating-point exceptions in the whole chain", std::size(steps), 0, clock);
    return 0;
}
