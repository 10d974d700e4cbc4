// The library against OpenCV's own functions and against copying memory: medians of paired ratios, all measured in
// one run. A and B of a pair run one after the other, in random order, so that whatever else the machine does hits
// both alike. With one thread the clock is the process's CPU time, with more it is the wall clock.
//
//     vexo_ratios [--threads N] [--pairs N]      the table
//     vexo_ratios --memory gray|multi|sgbm       peak memory of one chain above what it began with, MB
//     vexo_ratios --sizes [--pairs N]            time and memory of the chain a pixel, from 0.3 to 12 Mpx
#include "board/KorvaCalibBoardRecognizer.h"
#include "capture.h"
#include "opencv_chain.h"
#include "support/board_photos.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#ifdef VEXO_HAVE_STRUCTURED_LIGHT
#include <opencv2/structured_light.hpp>
#endif

#include <malloc.h>
#include <omp.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>

namespace {

using namespace bench;
using Work = std::function<void()>;

struct Settings {
    int threads = 1;
    int pairs = 15;
    std::mt19937 rng { 1 };
};

double now_ms(const Settings& settings)
{
    timespec t {};
    clock_gettime(settings.threads == 1 ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC, &t);
    return 1e3 * static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_nsec);
}

double time_of(const Work& work, const Settings& settings)
{
    const double begin = now_ms(settings);
    work();
    return now_ms(settings) - begin;
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

/// One row of the table: how long `a` takes against `b`.
void print_ratio(const char* what, const Work& a, const Work& b, Settings& settings, int pairs = 0)
{
    std::vector<double> ratios, times_a, times_b;
    a();
    b();
    for (int i = 0; i < (pairs > 0 ? pairs : settings.pairs); ++i) {
        const bool a_first = settings.rng() % 2 == 0;
        double ta = 0.0;
        if (a_first) ta = time_of(a, settings);
        const double tb = time_of(b, settings);
        if (!a_first) ta = time_of(a, settings);
        ratios.push_back(ta / tb);
        times_a.push_back(ta);
        times_b.push_back(tb);
    }
    std::printf("| %-66s | %8.3f | %8.2f | %8.2f |\n", what, median(ratios), median(times_a), median(times_b));
    std::fflush(stdout);
}

/// Copies all frames in, and a texture and a cloud out, once.
class Copy {
public:
    explicit Copy(const Capture& capture)
        : _capture(&capture)
        , _points(capture.size, CV_32FC3, cv::Scalar::all(1))
    {
    }
    void operator()()
    {
        for (const auto& frames : _capture->frames)
            for (std::size_t k = 0; k < frames.size(); ++k)
                frames[k].copyTo(_frame[&frames == &_capture->frames[1] ? 1 : 0][k]);
        _capture->frames[0][0].copyTo(_texture);
        _points.copyTo(_cloud);
    }

private:
    const Capture* _capture;
    std::array<std::array<cv::Mat, 64>, 2> _frame;
    cv::Mat _points, _texture, _cloud;
};

void print_chain_rows(Settings& settings)
{
    const Capture gray = make_capture(Method::gray_phase, { 1280, 1024 });
    const auto generator = make_generator(gray);
    const Work chain = [&] { run_chain(*generator, gray); };
    Copy copy(gray);
    OpenCvChain opencv(gray);
    std::printf(
        "points: vexo %d, OpenCV chain %d of %d\n", run_chain(*generator, gray), opencv.run(), gray.size.area());
    print_ratio("gray-phase frames to cloud / copying input and output once", chain, std::ref(copy), settings);
    {
        const Capture multi = make_capture(Method::multi_phase, { 1280, 1024 });
        const auto multi_generator = make_generator(multi);
        Copy multi_copy(multi);
        print_ratio(
            "multi-phase the same", [&] { run_chain(*multi_generator, multi); }, std::ref(multi_copy), settings);
    }
    print_ratio(
        "an OpenCV user's chain on the same 13 frames / ours", [&] { opencv.run(); }, chain, settings);
    print_ratio(
        "OpenCV rectifying the 26 frames alone / our whole chain", [&] { opencv.rectify(); }, chain, settings);

    cv::Mat disparity = cv::Mat::ones(gray.size, CV_32F), points;
    const Work reproject = [&] { cv::reprojectImageTo3D(disparity, points, gray.camera->Q); };
    print_ratio(
        "genPC / cv::reprojectImageTo3D", [&] { generator->genPC(vexo::iPointCloudGenerator::MethodQ, false); },
        reproject, settings);

    cv::Mat raw = gray.frames[0][1].clone(), ours(gray.size, CV_8U), theirs;
    print_ratio(
        "stereo camera remap / cv::remap with float maps",
        [&] { gray.camera->remap(raw.data, raw.step[0], ours.data, ours.step[0], 0); },
        [&] {
            cv::remap(
                raw, theirs, gray.camera->cam0.map1, gray.camera->cam0.map2, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
        },
        settings);
}

void print_sgbm_rows(Settings& settings)
{
    const Capture capture = make_capture(Method::sgbm, { 1280, 1024 });
    const auto generator = make_generator(capture);
    run_chain(*generator, capture);
    const vexo::SGBMatchingParam p;
    const int area = p.blockSize * p.blockSize;
    cv::Mat left, right, disparity;
    capture.camera->cam0.remap(capture.frames[0][0], left);
    capture.camera->cam1.remap(capture.frames[1][0], right);
    const Work compute = [&] {
        cv::StereoSGBM::create(p.minDisparity, p.numDisparities, p.blockSize, 8 * area, 32 * area, p.disp12MaxDiff,
            p.preFilterCap, p.uniquenessRatio, p.speckleWindowSize, p.speckleRange, p.mode)
            ->compute(left, right, disparity);
    };
    print_ratio(
        "SGBM exec / StereoSGBM::compute", [&] { generator->exec(); }, compute, settings, std::min(settings.pairs, 7));
    cv::Mat floats, points;
    disparity.convertTo(floats, CV_32F, 1.0 / 16);
    print_ratio(
        "SGBM genPC / cv::reprojectImageTo3D", [&] { generator->genPC(vexo::iPointCloudGenerator::MethodQ, false); },
        [&] { cv::reprojectImageTo3D(floats, points, capture.camera->Q); }, settings);
}

#ifdef VEXO_HAVE_STRUCTURED_LIGHT
/// OpenCV's gray code on ideal, rectified pictures of a plane: 42 frames per camera, as it asks for.
void print_gray_code_row(Settings& settings)
{
    const cv::Size size(1024, 768);
    const Capture capture = make_capture(Method::gray_phase, size);
    const auto generator = make_generator(capture);
    const auto pattern = cv::structured_light::GrayCodePattern::create(size.width, size.height);
    std::vector<std::vector<cv::Mat>> frames(2);
    pattern->generate(frames[0]);
    const cv::Matx23f shift(1, 0, -40, 0, 1, 0);
    for (const cv::Mat& frame : frames[0]) {
        cv::Mat moved;
        cv::warpAffine(frame, moved, shift, size, cv::INTER_NEAREST, cv::BORDER_CONSTANT);
        frames[1].push_back(moved);
    }
    const std::vector<cv::Mat> dark(2, cv::Mat(size, CV_8U, cv::Scalar(0)));
    const std::vector<cv::Mat> lit(2, cv::Mat(size, CV_8U, cv::Scalar(255)));
    cv::Mat disparity, floats, points;
    print_ratio(
        "OpenCV structured_light GrayCodePattern chain (42 frames) / ours",
        [&] {
            pattern->decode(frames, disparity, dark, lit);
            disparity.convertTo(floats, CV_32F);
            cv::reprojectImageTo3D(floats, points, capture.camera->Q);
        },
        [&] { run_chain(*generator, capture); }, settings, std::min(settings.pairs, 5));
}
#else
void print_gray_code_row(Settings&)
{
    std::puts("(no row for OpenCV's GrayCodePattern: libopencv-contrib-dev is not installed)");
}
#endif

void print_board_rows(Settings& settings)
{
    const board_photos::Board board;
    board_photos::Photographer camera;
    const board_photos::Pose pose = board_photos::view(board, 0.2, 0.5, 0.1, { 0, 0, 400 });
    cv::Mat picture = camera.photo(board, pose);
    struct End {
        void operator()(vexo::iCalibBoardRecognizer* r) const { r->destroy(); }
    };
    const std::unique_ptr<vexo::iCalibBoardRecognizer, End> recognizer(new vexo::KORVACalibBoardRecognizer);
    vexo::PreProcParam pre;
    vexo::CircleMarkerParam circle = board_photos::marker_settings();
    vexo::CalibBoardParam param = board.param();
    std::vector<cv::Point2f> points;
    if (recognizer == nullptr || !recognizer->set_parameters(pre, circle, param)
        || recognizer->recognize(picture, points) != 0) {
        std::puts("(no rows for the board: it is not recognised)");
        return;
    }
    const Work recognize = [&] { recognizer->recognize(picture, points); };
    print_ratio(
        "board recognize (19 x 15 markers) / (Otsu threshold + findContours)", recognize,
        [&] {
            cv::Mat binary;
            std::vector<std::vector<cv::Point>> contours;
            cv::threshold(picture, binary, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
            cv::findContours(binary, contours, cv::RETR_TREE, cv::CHAIN_APPROX_NONE);
        },
        settings);
    board_photos::Board discs = board;
    discs.rings.clear();
    const cv::Mat grid = camera.photo(discs, pose);
    std::vector<cv::Point2f> centres;
    print_ratio(
        "cv::findCirclesGrid with clustering on a plain grid of that size / recognize",
        [&] {
            cv::findCirclesGrid(grid, cv::Size(19, 15), centres, cv::CALIB_CB_SYMMETRIC_GRID | cv::CALIB_CB_CLUSTERING);
        },
        recognize, settings, std::min(settings.pairs, 5));
}

void print_thread_and_size_rows(Settings& settings)
{
    const Capture gray = make_capture(Method::gray_phase, { 1280, 1024 });
    const auto generator = make_generator(gray);
    const auto with_threads = [&](int threads) {
        return [&, threads] {
            omp_set_num_threads(threads);
            run_chain(*generator, gray);
        };
    };
    Settings wall = settings;
    wall.threads = 2;
    print_ratio("one core / two cores, gray-phase chain", with_threads(1), with_threads(2), wall);
    omp_set_num_threads(settings.threads);
    for (const cv::Size size : { cv::Size(640, 512), cv::Size(2560, 2048) }) {
        const Capture other = make_capture(Method::gray_phase, size);
        const auto other_generator = make_generator(other);
        const std::string what
            = "gray-phase chain " + std::to_string(size.width) + " x " + std::to_string(size.height) + " / 1280 x 1024";
        print_ratio(
            what.c_str(), [&] { run_chain(*other_generator, other); }, with_threads(settings.threads), settings, 7);
    }
}

// --- memory ----------------------------------------------------------------------------------------------

double status_mb(const std::string& key)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == key + ":") {
            double kilobytes = 0;
            status >> kilobytes;
            return kilobytes / 1024;
        }
    return 0;
}

/// Peak memory of the chain above frames and tables, MB. Twice the chain, as the second capture finds the buffers of
/// the first.
double peak_mb(const Capture& capture)
{
    malloc_trim(0);                              // what was freed before cannot serve again unseen
    std::ofstream("/proc/self/clear_refs") << 5; // the peak begins anew: making the capture had its own
    const double before = status_mb("VmRSS");
    const auto generator = make_generator(capture);
    run_chain(*generator, capture);
    run_chain(*generator, capture);
    return status_mb("VmHWM") - before;
}

int print_peak(const std::string& method, const Settings& settings)
{
    const Method which = method == "gray" ? Method::gray_phase : method == "multi" ? Method::multi_phase : Method::sgbm;
    const Capture capture = make_capture(which, { 1280, 1024 });
    omp_set_num_threads(settings.threads);
    std::printf("peak memory above the camera's tables, %-6s %6.1f MB\n", method.c_str(), peak_mb(capture));
    return 0;
}

/// Each size against 1280 x 1024, a pixel: 1 is proportional.
int print_sizes(Settings& settings)
{
    omp_set_num_threads(settings.threads);
    const Capture usual = make_capture(Method::gray_phase, { 1280, 1024 });
    const double usual_mb = peak_mb(usual);
    const auto usual_generator = make_generator(usual);
    run_chain(*usual_generator, usual);
    std::printf("| %-11s | %8s | %10s | %8s | %8s | %10s | %8s |\n|---|---|---|---|---|---|---|\n", "size", "ms",
        "ns a pixel", "ratio", "MB", "B a pixel", "ratio");
    for (const cv::Size size :
        { cv::Size(640, 512), cv::Size(1280, 1024), cv::Size(2448, 2048), cv::Size(4096, 3000) }) {
        const Capture capture = make_capture(Method::gray_phase, size);
        const double larger = capture.pixels() / usual.pixels(), mb = peak_mb(capture);
        const auto generator = make_generator(capture);
        run_chain(*generator, capture);
        std::vector<double> times, ratios;
        for (int i = 0; i < settings.pairs; ++i) {
            times.push_back(time_of([&] { run_chain(*generator, capture); }, settings));
            ratios.push_back(times.back() / time_of([&] { run_chain(*usual_generator, usual); }, settings) / larger);
        }
        const std::string name = std::to_string(size.width) + " x " + std::to_string(size.height);
        std::printf("| %-11s | %8.2f | %10.2f | %8.2f | %8.1f | %10.1f | %8.2f |\n", name.c_str(), median(times),
            1e6 * median(times) / capture.pixels(), median(ratios), mb, mb * 1048576 / capture.pixels(),
            mb / usual_mb / larger);
        std::fflush(stdout);
    }
    return 0;
}

void print_peaks(const std::string& program, const Settings& settings)
{
    for (const char* method : { "gray", "multi", "sgbm" }) {
        const std::string command
            = "'" + program + "' --threads " + std::to_string(settings.threads) + " --memory " + method;
        std::fflush(stdout);
        if (std::system(command.c_str()) != 0) std::puts("(no figure for memory)");
    }
}

int print_table(const std::string& program, Settings& settings)
{
    omp_set_num_threads(settings.threads);
    cv::setNumThreads(settings.threads);
    std::printf("threads: %d; medians of %d pairs, 1280 x 1024\n", settings.threads, settings.pairs);
    std::printf("| %-66s | %8s | %8s | %8s |\n|---|---|---|---|\n", "ratio A / B", "A / B", "A, ms", "B, ms");
    print_chain_rows(settings);
    print_gray_code_row(settings);
    print_sgbm_rows(settings);
    print_board_rows(settings);
    print_thread_and_size_rows(settings);
    print_peaks(program, settings);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Settings settings;
    std::string memory;
    const bool sizes = argc > 1 && std::strcmp(argv[1], "--sizes") == 0;
    for (int i = sizes ? 2 : 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--threads") settings.threads = std::max(1, std::atoi(argv[i + 1]));
        if (option == "--pairs") settings.pairs = std::max(1, std::atoi(argv[i + 1]));
        if (option == "--memory") memory = argv[i + 1];
    }
    try {
        if (sizes) return print_sizes(settings);
        return memory.empty() ? print_table(argv[0], settings) : print_peak(memory, settings);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
