// Every stage of the chain, and the chain: the plain twin of the tests, OpenCV where it has the function, and the
// library. Each benchmark first checks that its result equals the twin's. Argument: image width, in 5 : 4.
#include "capture.h"
#include "decode/GrayPhaseDecoder.h"
#include "matching/reproject_row.h"
#include "matching/row_matcher.h"
#include "plain_decode.h"
#include "plain_remap.h"
#include "reference/plain_reprojection.h"
#include "reference/readable_matcher.h"

#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include <cstring>
#include <map>
#include <memory>

namespace {

using namespace bench;
using vexo::GrayPhaseDecoder;

constexpr double no_disparity = -10001.0;

vexo::GrayPhaseMatchingParam decoder_record()
{
    vexo::GrayPhaseMatchingParam record;
    record.anchor_length = 4;
    record.reject_length = 1;
    return record;
}

/// What each stage begins with, for one image size.
struct Stages {
    Capture capture;
    vexo::GrayPhaseMatchingParam record = decoder_record();
    std::array<std::unique_ptr<GrayPhaseDecoder>, 2> decoders;
    std::array<cv::Mat_<float>, 2> raw_map, map;
    std::array<cv::Mat_<uchar>, 2> raw_mask, mask;
    cv::Mat disparity;

    explicit Stages(cv::Size size)
        : capture(make_capture(Method::gray_phase, size))
        , disparity(size, CV_64F, cv::Scalar(no_disparity))
    {
        for (std::size_t cam = 0; cam < 2; ++cam) {
            decoders[cam] = std::make_unique<GrayPhaseDecoder>(static_cast<int>(cam), 13, &record);
            give_frames(cam);
            decoders[cam]->decode();
            raw_map[cam] = decoders[cam]->unwrapped.clone();
            raw_mask[cam] = decoders[cam]->vmask.clone();
            rectifier(cam).remap(raw_map[cam], map[cam], cv::Scalar::all(0));
            rectifier(cam).remap(raw_mask[cam], mask[cam], cv::Scalar::all(0));
            decoders[cam]->unwrapped = map[cam];
            decoders[cam]->vmask = mask[cam];
            decoders[cam]->vmask2valid();
        }
        match();
    }
    const vexo::UndistortCamera& rectifier(std::size_t cam) const
    {
        return cam == 0 ? capture.camera->cam0 : capture.camera->cam1;
    }
    void give_frames(std::size_t cam)
    {
        for (std::size_t k = 0; k < 13; ++k) {
            const cv::Mat& frame = capture.frames[cam][k];
            decoders[cam]->set_input(frame.data, frame.cols, frame.rows, frame.step[0], static_cast<int>(k));
        }
    }
    plain::Row plain_row(std::size_t cam, int row) const
    {
        const float* phase = map[cam][row];
        return { decoders[cam]->valid[static_cast<std::size_t>(row)],
            std::vector<float>(phase, phase + map[cam].cols) };
    }
    vexo::PhaseMapRow row(std::size_t cam, int r) const { return { mask[cam][r], map[cam][r] }; }
    void match()
    {
        vexo::RowMatcher matcher;
        matcher.reserve(disparity.cols);
        disparity.setTo(no_disparity);
        for (int r = 0; r < disparity.rows; ++r)
            matcher.match(row(0, r), row(1, r), disparity.cols, { 0.15, -10000, 10000, no_disparity, 5 }, false,
                disparity.ptr<double>(r));
    }
};

Stages& stages_of(const benchmark::State& state)
{
    static std::map<int, std::unique_ptr<Stages>> all;
    const int width = static_cast<int>(state.range(0));
    auto& stages = all[width];
    if (stages == nullptr) stages = std::make_unique<Stages>(cv::Size(width, width * 4 / 5));
    return *stages;
}

bool same_bits(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && a.isContinuous() && b.isContinuous()
        && std::memcmp(a.data, b.data, a.total() * a.elemSize()) == 0;
}

/// Times `work` if `equal`.
template <class Work> void time_stage(benchmark::State& state, const Stages& stages, bool equal, Work work)
{
    if (!equal) return state.SkipWithError("the result differs from the plain twin's");
    for (auto _ : state)
        work();
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * stages.capture.size.area());
}

// --- frames and decoding, one camera -------------------------------------------------------------------------

void set_input(benchmark::State& state)
{
    Stages& s = stages_of(state);
    time_stage(state, s, true, [&] { s.give_frames(0); });
}

std::vector<cv::Mat_<uchar>> frames_of(const Stages& s)
{
    return { s.capture.frames[0].begin(), s.capture.frames[0].end() };
}

void preproc_plain_twin(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const auto frames = frames_of(s);
    time_stage(state, s, true, [&] { benchmark::DoNotOptimize(plain::decode(frames, s.record)); });
}

void unwrap_plain_twin(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const plain::Decoded decoded = plain::decode(frames_of(s), s.record);
    time_stage(state, s, true, [&] { benchmark::DoNotOptimize(plain::unwrap(decoded, s.record)); });
}

/// A decoder of its own for the stage, with all frames.
struct Fresh {
    GrayPhaseDecoder decoder;
    explicit Fresh(const Stages& s)
        : decoder(0, 13, &s.record)
    {
        for (std::size_t k = 0; k < 13; ++k) {
            const cv::Mat& frame = s.capture.frames[0][k];
            decoder.set_input(frame.data, frame.cols, frame.rows, frame.step[0], static_cast<int>(k));
        }
    }
    bool equals_twin(const Stages& s) const
    {
        const plain::Unwrapped twin = plain::unwrap(plain::decode(frames_of(s), s.record), s.record);
        return same_bits(decoder.unwrapped, twin.map) && same_bits(decoder.vmask, twin.mask);
    }
};

void preproc(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    Fresh f(s);
    f.decoder.preproc();
    f.decoder.unwrap();
    time_stage(state, s, f.equals_twin(s), [&] { f.decoder.preproc(); });
}

void unwrap_after_preproc(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    Fresh f(s);
    f.decoder.preproc();
    f.decoder.unwrap();
    time_stage(state, s, f.equals_twin(s), [&] {
        state.PauseTiming();
        f.decoder.preproc();
        state.ResumeTiming();
        f.decoder.unwrap();
    });
}

void decode_in_one(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    Fresh f(s);
    f.decoder.decode();
    time_stage(state, s, f.equals_twin(s), [&] { f.decoder.decode(); });
}

// --- map and mask, one camera --------------------------------------------------------------------------------

void rectify_plain_twin(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const vexo::UndistortCamera& cam = s.rectifier(0);
    time_stage(state, s, true, [&] {
        benchmark::DoNotOptimize(plain::remap<float>(s.raw_map[0], cam.map1, cam.map2, 0.0F));
        benchmark::DoNotOptimize(plain::remap<uchar>(s.raw_mask[0], cam.map1, cam.map2, 0));
    });
}

void rectify_opencv(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const vexo::UndistortCamera& cam = s.rectifier(0);
    cv::Mat map(s.map[0].size(), CV_32F), mask(map.size(), CV_8U);
    time_stage(state, s, true, [&] {
        map.setTo(0);
        mask.setTo(0);
        cv::remap(s.raw_map[0], map, cam.map1, cam.map2, cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
        cv::remap(s.raw_mask[0], mask, cam.map1, cam.map2, cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
    });
}

void rectify(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const vexo::UndistortCamera& cam = s.rectifier(0);
    cv::Mat_<float> map(s.map[0].size());
    cv::Mat_<uchar> mask(map.size());
    const auto all_rows = [&] {
        for (int r = 0; r < map.rows; ++r)
            cam.remap_row(r, s.capture.size,
                { { s.raw_mask[0].ptr(), s.raw_mask[0].step[0], mask[r], 0 },
                    { s.raw_map[0].ptr<float>(), s.raw_map[0].step[0], map[r], 0.0F }, {} });
    };
    all_rows();
    const bool equal = same_bits(map, plain::remap<float>(s.raw_map[0], cam.map1, cam.map2, 0.0F))
        && same_bits(mask, plain::remap<uchar>(s.raw_mask[0], cam.map1, cam.map2, 0));
    time_stage(state, s, equal, all_rows);
}

// --- matching ------------------------------------------------------------------------------------------------

std::vector<double> plain_matches(const Stages& s, int row)
{
    static const plain::ReadableMatcher matcher(plain::limits_of(0.15, -10000, 10000, 5));
    return matcher.match(s.plain_row(0, row), s.plain_row(1, row), false);
}

void match_plain_twin(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    time_stage(state, s, true, [&] {
        for (int r = 0; r < s.disparity.rows; ++r)
            benchmark::DoNotOptimize(plain_matches(s, r));
    });
}

void match(benchmark::State& state)
{
    Stages& s = stages_of(state);
    bool equal = true;
    for (int r = 0; r < s.disparity.rows; ++r)
        equal = equal
            && std::memcmp(plain_matches(s, r).data(), s.disparity.ptr(r),
                   static_cast<std::size_t>(s.disparity.cols) * sizeof(double))
                == 0;
    time_stage(state, s, equal, [&] { s.match(); });
}

// --- triangulation -------------------------------------------------------------------------------------------

std::vector<double> disparities(const Stages& s, int row)
{
    const auto* d = s.disparity.ptr<double>(row);
    return { d, d + s.disparity.cols };
}

void triangulate_plain_twin(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const cv::Matx44d H = s.capture.camera->Q;
    std::vector<cv::Point3f> points(static_cast<std::size_t>(s.disparity.cols));
    time_stage(state, s, true, [&] {
        for (int r = 0; r < s.disparity.rows; ++r)
            benchmark::DoNotOptimize(plain::reproject(H, r, disparities(s, r), no_disparity, points));
    });
}

void triangulate(benchmark::State& state)
{
    const Stages& s = stages_of(state);
    const cv::Matx44d H = s.capture.camera->Q;
    const auto cols = static_cast<std::size_t>(s.disparity.cols);
    std::vector<cv::Point3f> points(s.disparity.total()), twin(cols);
    const auto all_rows = [&] {
        for (int r = 0; r < s.disparity.rows; ++r)
            vexo::reproject_row(H, r, s.disparity.ptr<double>(r), s.disparity.cols, no_disparity,
                &points[static_cast<std::size_t>(r) * cols]);
    };
    all_rows();
    bool equal = true;
    for (int r = 0; r < s.disparity.rows; ++r) {
        plain::reproject(H, r, disparities(s, r), no_disparity, twin);
        equal = equal
            && std::memcmp(twin.data(), &points[static_cast<std::size_t>(r) * cols], cols * sizeof twin[0]) == 0;
    }
    time_stage(state, s, equal, all_rows);
}

// --- the chain -----------------------------------------------------------------------------------------------

void chain(benchmark::State& state, Method method)
{
    const int width = static_cast<int>(state.range(0));
    const Capture capture = make_capture(method, { width, width * 4 / 5 });
    const auto generator = make_generator(capture);
    if (run_chain(*generator, capture) == 0) return state.SkipWithError("no points");
    for (auto _ : state)
        run_chain(*generator, capture);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * capture.size.area());
}

void sizes(benchmark::internal::Benchmark* b)
{
    b->Unit(benchmark::kMillisecond)->Arg(640)->Arg(1280)->Arg(2560);
}

void one_size(benchmark::internal::Benchmark* b)
{
    b->Unit(benchmark::kMillisecond)->Arg(1280);
}

BENCHMARK(set_input)->Apply(sizes);
BENCHMARK(preproc_plain_twin)->Apply(one_size);
BENCHMARK(preproc)->Apply(sizes);
BENCHMARK(unwrap_plain_twin)->Apply(one_size);
BENCHMARK(unwrap_after_preproc)->Apply(sizes);
BENCHMARK(decode_in_one)->Apply(sizes);
BENCHMARK(rectify_plain_twin)->Apply(one_size);
BENCHMARK(rectify_opencv)->Apply(one_size);
BENCHMARK(rectify)->Apply(sizes);
BENCHMARK(match_plain_twin)->Apply(one_size);
BENCHMARK(match)->Apply(sizes);
BENCHMARK(triangulate_plain_twin)->Apply(one_size);
BENCHMARK(triangulate)->Apply(sizes);
BENCHMARK_CAPTURE(chain, gray_phase, Method::gray_phase)->Apply(sizes)->UseRealTime();
BENCHMARK_CAPTURE(chain, multi_phase, Method::multi_phase)->Apply(sizes)->UseRealTime();
BENCHMARK_CAPTURE(chain, sgbm, Method::sgbm)->Apply(one_size)->UseRealTime();

} // namespace
