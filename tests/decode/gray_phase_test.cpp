#include "decode/frames.h"
#include "decode/GrayPhaseDecoder.h"
#include "decode/GrayPhaseLoader.h"
#include "decode/pixel_formulas.h"
#include "reference/plain_gray_phase.h"

#include <gtest/gtest.h>
#include <limits>
#include <opencv2/imgproc.hpp>

using namespace vexo;

namespace {

constexpr float not_a_number = std::numeric_limits<float>::quiet_NaN();
constexpr float infinite = std::numeric_limits<float>::infinity();

/// Limits that accept every pixel.
GrayPhaseMatchingParam everything_valid()
{
    GrayPhaseMatchingParam p;
    p.min_contrast = -255;
    p.min_white = 0;
    return p;
}

/// Unwraps one row of decoded data; the loader takes it as it is.
struct LoadedRow {
    std::vector<int> cols;
    cv::Mat_<float> map;
};
LoadedRow unwrap_row(GrayPhaseMatchingParam params, std::vector<int> gray, std::vector<float> phase)
{
    const cv::Size size(static_cast<int>(gray.size()), 1);
    params.min_contrast = -255;
    params.min_white = 0;
    GrayPhaseLoader loader(0, &params);
    captures::give(loader, cv::Mat_<uchar>(size, uchar { 0 }), 0);
    captures::give(loader, cv::Mat_<uchar>(size, uchar { 255 }), 1);
    captures::give(loader, cv::Mat_<uchar>(cv::Mat(gray).t()), 2);
    captures::give(loader, cv::Mat(phase).t(), 3);
    loader.preproc();
    loader.unwrap();
    return { loader.valid.at(0), loader.unwrapped.clone() };
}

TEST(GrayPhase, CodesAndPhasesOfKnownPixels)
{
    for (unsigned b = 0; b < 256; ++b)
        ASSERT_EQ(gray_to_binary[b ^ b >> 1], b);
    const uint8_t on = 101, off = 100; // the threshold itself, 100, is a 0
    const float threshold = 100.0F;
    const int column = 0;
    uint8_t code = 0;
    code_row({ &on, &off, &off, &off, &off, &off, &off }, &threshold, { &column, &column + 1 }, &code);
    EXPECT_EQ(code, 127);
    code_row({ &off, &off, &off, &off, &off, &on, &off }, &threshold, { &column, &column + 1 }, &code);
    EXPECT_EQ(code, 3);

    const auto phase = [&](uint8_t p0, uint8_t p1, uint8_t p2, uint8_t p3) {
        float result = -1;
        phase_row({ &p0, &p1, &p2, &p3 }, { &column, &column + 1 }, &result);
        return result;
    };
    EXPECT_EQ(phase(50, 90, 150, 90), 0.5F);
    EXPECT_EQ(phase(150, 90, 50, 90), 0.0F) << "exactly 0, not a rounding error away from it";
    EXPECT_EQ(phase(80, 200, 80, 10), 0.25F);
    EXPECT_EQ(phase(80, 10, 80, 200), 0.75F);
    EXPECT_EQ(phase(255, 255, 255, 255), 0.5F) << "no modulation";
}

TEST(GrayPhase, NoiseFreeCoordinateIsTheOneThatMadeTheFrames)
{
    // 8-bit rounding moves a sine of amplitude 90 by at most 0.5 sqrt(2) / 90 rad, 0.00125 periods.
    const auto position = [](int x, int y) { return 0.3 + 0.09 * x + 0.37 * y; };
    GrayPhaseMatchingParam params;
    params.reject_length = 0; // or the cut-off periods at both ends of a row go
    GrayPhaseDecoder decoder(0, 13, &params);
    captures::give_all(decoder, captures::gray_phase_capture({ 640, 64 }, position));
    decoder.preproc();
    decoder.unwrap();
    for (int y = 0; y < 64; ++y) {
        ASSERT_EQ(decoder.valid[static_cast<size_t>(y)].size(), 640U) << "row " << y;
        for (const int x : decoder.valid[static_cast<size_t>(y)])
            ASSERT_NEAR(decoder.unwrapped(y, x), position(x, y), 0.0013) << x << ", " << y;
    }
}

TEST(GrayPhase, TheShorterSideOfAFallInCodesLosesAndATieDropsTheEarlier)
{
    GrayPhaseMatchingParam p;
    p.anchor_length = 1;
    p.reject_length = 0;
    // Two runs of equal length, codes 5 and 3: the code 5 run is filled below 3.0 only, that is never.
    EXPECT_EQ(
        unwrap_row(p, { 5, 5, 5, 3, 3, 3 }, { .2F, .3F, .4F, .1F, .2F, .3F }).cols, (std::vector<int> { 3, 4, 5 }));
    // One pixel more on the left, and the right side loses.
    const LoadedRow left = unwrap_row(p, { 5, 5, 5, 5, 3, 3, 3 }, { .1F, .2F, .3F, .4F, .1F, .2F, .3F });
    EXPECT_EQ(left.cols, (std::vector<int> { 0, 1, 2, 3 }));
    EXPECT_EQ(left.map(0, 3), 5.4F);
    EXPECT_EQ(left.map(0, 4), 0.0F);
}

TEST(GrayPhase, OneTrustedRunTakesTheMostFrequentCodeForAllItsPixels)
{
    GrayPhaseMatchingParam p;
    const std::vector<float> rising { .0F, .1F, .2F, .3F, .4F, .5F, .6F, .7F, .8F, .9F };
    const LoadedRow row = unwrap_row(p, { 6, 7, 7, 7, 7, 6, 7, 8, 7, 7 }, rising);
    ASSERT_EQ(row.cols.size(), 10U);
    for (int x = 0; x < 10; ++x)
        EXPECT_EQ(row.map(0, x), rising[static_cast<size_t>(x)] + 7.0F);
    p.code_spread = 2; // three codes are too many now: every pixel is on its own, strictly rising
    EXPECT_EQ(unwrap_row(p, { 6, 7, 7, 7, 7, 6, 7, 8, 7, 7 }, rising).map(0, 0), 6.0F);
}

TEST(GrayPhase, ACoordinateEqualToItsNeighbourIsNotAssigned)
{
    GrayPhaseMatchingParam p;
    p.anchor_length = 100; // nothing is trusted
    p.reject_length = 0;
    EXPECT_EQ(unwrap_row(p, { 4, 4, 4, 4 }, { .5F, .5F, .25F, .75F }).cols, (std::vector<int> { 0, 3 }));
    EXPECT_EQ(unwrap_row(p, { 0, 0 }, { .0F, .5F }).cols, (std::vector<int> { 1 })) << "0 is not above 0";
    p.reject_length = 3;
    EXPECT_EQ(unwrap_row(p, { 4, 4, 4 }, { .1F, .2F, .3F }).cols, (std::vector<int> {})) << "too short";
}

TEST(GrayPhase, LoaderTakesFourFramesAndUnalignedFloats)
{
    const GrayPhaseMatchingParam params = everything_valid();
    GrayPhaseLoader loader(1, &params);
    EXPECT_EQ(loader.frame_count, 3);
    EXPECT_EQ(loader.inputs(), 4);
    const cv::Mat_<float> phase = (cv::Mat_<float>(2, 2) << .1F, .2F, .3F, .4F);
    EXPECT_EQ(captures::give(loader, phase, 3, 5), 1);
    EXPECT_TRUE(same_bits(loader.phase, phase));
    EXPECT_EQ(captures::give(loader, phase, 4), 0);
    EXPECT_EQ(loader.set_input(phase.data, 2, 2, 7, 3), 0) << "a row is 8 bytes";
}

/// Inputs of the comparison with the plain form.
enum Kind { random_greys, noisy_steps, nothing_lit, half_saturated, few_levels, lit_disc };
using Case = std::tuple<Kind, int, int>; // and width, height

captures::Frames frames_of(const Case& input, std::mt19937& rng)
{
    const auto [kind, width, height] = input;
    captures::Frames frames = captures::random_frames(13, { width, height }, rng);
    if (kind == noisy_steps || kind == lit_disc) {
        const int edge = width / 2;
        frames = captures::gray_phase_capture(
            { width, height }, [&](int x, int y) { return 3 + .07 * x + .1 * y + (x > edge ? -5 : 0) * (y % 3); });
        captures::add_noise(frames, 4.0, rng);
    }
    if (kind == nothing_lit) frames[1].setTo(0);
    if (kind == lit_disc) {
        const cv::Mat lit = frames[1].clone();
        frames[1].setTo(0);
        cv::Mat disc(lit.size(), CV_8U, cv::Scalar(0)); // with a hole, and dark columns on both sides
        cv::circle(disc, { width / 2, height / 2 }, height / 2 - 1, 255, height / 4);
        lit.copyTo(frames[1], disc);
    }
    for (size_t i = 1; i < 13 && kind == half_saturated; ++i)
        frames[i](cv::Rect(0, 0, (width + 1) / 2, height)).setTo(255);
    for (size_t i = 0; i < 13 && kind == few_levels; ++i)
        for (uchar& pixel : frames[i])
            pixel = static_cast<uchar>(pixel / 100 * 100);
    return frames;
}

class GrayPhaseAgainstPlain : public testing::TestWithParam<Case> { };

/// Unwraps in steps, and compares with the definition.
template <class Decoder> void expect_plain(Decoder& decoder, const GrayPhaseMatchingParam& params)
{
    const plain::Unwrapped expected = plain::unwrap({ decoder.valid, decoder.gray, decoder.phase }, params);
    decoder.unwrap();
    EXPECT_EQ(decoder.valid, expected.valid);
    EXPECT_TRUE(same_bits(decoder.unwrapped, expected.map) && same_bits(decoder.vmask, expected.mask));
}

TEST_P(GrayPhaseAgainstPlain, EveryBitIsEqualInStepsAndInOnePassForAnyNumberOfThreads)
{
    std::mt19937 rng(7);
    const captures::Frames frames = frames_of(GetParam(), rng);
    for (const int anchor_length : { 8, 1, 0, INT_MIN, INT_MAX })
        for (const int code_spread : { 3, 1, INT_MAX, INT_MIN }) {
            GrayPhaseMatchingParam params
                = std::get<0>(GetParam()) == nothing_lit || std::get<0>(GetParam()) == lit_disc
                ? GrayPhaseMatchingParam()
                : everything_valid();
            params.anchor_length = anchor_length;
            params.code_spread = code_spread;
            params.reject_length = anchor_length == 0 ? INT_MIN : anchor_length / 3;
            for (const int threads : { 1, 2, 3, 7 }) {
                if (threads > 1 && (code_spread != 3 || anchor_length != 1)) continue; // teams are slow to form
                const captures::Threads set(threads);
                GrayPhaseDecoder decoder(0, 13, &params);
                captures::give_all(decoder, frames);
                decoder.preproc();
                expect_plain(decoder, params);
                decoder.preproc();
                captures::expect_same_in_one_pass(decoder);
            }
        }
}

TEST_P(GrayPhaseAgainstPlain, LoadedCodesUpTo255AndWildPhasesToo)
{
    const captures::Threads one(1);
    std::mt19937 rng(8);
    std::uniform_int_distribution<int> pick(0, 20);
    const auto [kind, width, height] = GetParam();
    const cv::Mat gray = captures::random_frame({ width, height }, 0, kind == few_levels ? 3 : 255, rng);
    cv::Mat_<float> phase(height, width);
    const float odd[] = { not_a_number, infinite, -infinite, 1e30F, -1e30F, 1.5F, -0.5F, -0.0F };
    for (float& p : phase) {
        const int i = pick(rng);
        p = i < 8 ? odd[i] : static_cast<float>(i) / 20.0F;
    }
    GrayPhaseMatchingParam params = everything_valid();
    for (params.anchor_length = 0; params.anchor_length < 3; ++params.anchor_length)
        for (params.reject_length = 0; params.reject_length < 3; ++params.reject_length) {
            GrayPhaseLoader loader(0, &params);
            captures::give_all(loader, captures::random_frames(2, { width, height }, rng));
            captures::give(loader, gray, 2);
            captures::give(loader, phase, 3);
            loader.preproc();
            ASSERT_EQ(cv::countNonZero(plain::mask_of(loader.valid, { width, height })), width * height);
            expect_plain(loader, params);
        }
}

INSTANTIATE_TEST_SUITE_P(Inputs, GrayPhaseAgainstPlain,
    testing::Values(Case(random_greys, 67, 41), Case(noisy_steps, 320, 24), Case(noisy_steps, 1, 50),
        Case(noisy_steps, 333, 1), Case(random_greys, 1, 1), Case(nothing_lit, 33, 9), Case(half_saturated, 65, 17),
        Case(few_levels, 129, 31), Case(lit_disc, 500, 120)));

TEST(GrayPhase, MissingFramesAndAnyOrderOfCallsLeaveNothingValid)
{
    const GrayPhaseMatchingParam params = everything_valid();
    std::mt19937 rng(3);
    const captures::Frames frames = captures::random_frames(13, { 20, 6 }, rng);
    const auto try_all = [](auto& decoder) {
        decoder.preproc();
        decoder.unwrap();
        captures::expect_nothing(decoder);
        decoder.decode();
        captures::expect_nothing(decoder);
    };
    GrayPhaseDecoder decoder(0, 13, &params);
    decoder.unwrap();
    try_all(decoder);
    for (int missing = 0; missing < 13; ++missing) {
        decoder.clear();
        for (int i = 0; i < 13; ++i)
            if (i != missing) captures::give(decoder, frames[static_cast<size_t>(i)], i);
        try_all(decoder);
    }
    captures::give_all(decoder, frames);
    decoder.unwrap(); // not decoded yet
    captures::expect_nothing(decoder);
    decoder.decode();
    EXPECT_TRUE(decoder.gray.empty() && decoder.phase.empty());
    decoder.unwrap(); // the way of two steps has not begun
    captures::expect_nothing(decoder);
    for (const int count : { -5, 0, 2, 12 }) { // decoders of another length
        GrayPhaseDecoder other(0, count, &params);
        captures::give_all(other, frames);
        try_all(other);
    }
    GrayPhaseLoader loader(0, nullptr); // no record at all
    loader.preproc();
    loader.unwrap();
    captures::expect_nothing(loader);
}

} // namespace
