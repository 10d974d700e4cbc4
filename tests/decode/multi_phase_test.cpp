#include "decode/frames.h"
#include "decode/MultiPhaseDecoder.h"
#include "decode/MultiPhaseLoader.h"
#include "decode/pixel_formulas.h"

#include <gtest/gtest.h>
#include <limits>

using namespace vexo;

namespace {

using Periods = std::vector<int>;

MultiPhaseMatchingParam params_of(const Periods& periods, int steps = 4)
{
    MultiPhaseMatchingParam p;
    p.min_contrast = -255;
    p.min_white = 0;
    p.steps = steps;
    p.nperiods = static_cast<int>(periods.size());
    std::copy(periods.begin(), periods.end(), p.periods);
    return p;
}

TEST(MultiPhase, PhasesOfKnownPixels)
{
    const int column = 0;
    const Columns one { &column, &column + 1 };
    const auto four = [&](uint8_t i0, uint8_t i1, uint8_t i2, uint8_t i3, int period) {
        float phase = -9;
        phase4_row({ &i0, &i1, &i2, &i3 }, phase_offset(period), one, &phase);
        return phase;
    };
    EXPECT_NEAR(four(150, 90, 50, 90, 9), 0.5 - 1.0 / 18, 1e-7) << "a = 0";
    EXPECT_NEAR(four(50, 90, 150, 90, 10), 1 - 1.0 / 20, 1e-7) << "a = pi";
    EXPECT_NEAR(four(90, 200, 90, 10, 11), 0.25 - 1.0 / 22, 1e-7) << "a = -pi / 2";
    for (const int period : { 0, -1, std::numeric_limits<int>::min() })
        EXPECT_TRUE(plausible_phase(four(50, 90, 150, 90, period))) << "period " << period;

    uint8_t i0 = 100, i1 = 120, i2 = 40; // sqrt(3) weights the first frame alone
    float phase = -9;
    phase3_row({ &i0, &i1, &i2 }, phase_offset(9), one, &phase);
    EXPECT_NEAR(
        phase, (std::atan2(std::sqrt(3.0) * 100 - 40, 2.0 * 120 - 100 - 40) + CV_PI) / (2 * CV_PI) - 1.0 / 18, 1e-7);
}

TEST(MultiPhase, NoiseFreeFramesGiveTheCoordinateThatMadeThem)
{
    // 8-bit rounding has sigma 0.29 grey levels, equal and opposite in opposite frames: 0.29 / 90 rad, 0.0051 px of
    // period 10; the mean of three periods has 0.0030 px. It has no bias.
    const auto position = [](int x, int y) { return 5.0 + 0.71 * x + 0.013 * y; };
    const Periods periods { 9, 10, 11 };
    const MultiPhaseMatchingParam params = params_of(periods);
    const FringePairTable table(periods);
    MultiPhaseDecoder decoder(0, &params, &table, 4, 3);
    EXPECT_EQ(decoder.frame_count, 14);
    captures::give_all(decoder, captures::multi_phase_capture({ 1250, 64 }, periods, position));
    decoder.preproc();
    decoder.unwrap();
    double sum = 0, squares = 0, largest = 0, count = 0;
    for (int y = 0; y < 64; ++y)
        for (const int x : decoder.valid[static_cast<size_t>(y)]) {
            const double error = decoder.unwrapped(y, x) - position(x, y);
            sum += error;
            squares += error * error;
            largest = std::max(largest, std::abs(error));
            ++count;
        }
    EXPECT_EQ(count, 64 * 1250);
    EXPECT_LT(std::sqrt(squares / count), 0.006);
    EXPECT_LT(std::abs(sum / count), 0.002);
    EXPECT_LT(largest, 0.02);
}

TEST(MultiPhase, PruningExamples)
{
    std::vector<float> row { 1, 3, 2, 4 };
    std::vector<int> cols { 0, 1, 2, 3 };
    EXPECT_EQ(MultiPhaseHolder::_rm_extreme_value(row.data(), cols), 2);
    EXPECT_EQ(cols, (std::vector<int> { 0, 3 })) << "3 is a peak, 2 a dip";
    EXPECT_EQ(MultiPhaseHolder::_rm_extreme_value(row.data(), cols), 3) << "fewer than 3 are left alone";
    EXPECT_EQ(cols.size(), 2U);
    std::vector<int> ends { 1, 3, 2 }; // 3, 4, 2 in list order: the last falls
    EXPECT_EQ(MultiPhaseHolder::_rm_extreme_value(row.data(), ends), 1);
    EXPECT_EQ(ends, (std::vector<int> { 1 }));
}

TEST(MultiPhase, StepsAndOnePassGiveTheSameBitsForAnyNumberOfThreads)
{
    std::mt19937 rng(12);
    const Periods periods { 9, 10, 11 };
    const FringePairTable table(periods);
    for (const cv::Size size : { cv::Size(1, 1), cv::Size(1, 40), cv::Size(301, 5), cv::Size(97, 23) })
        for (const int steps : { 3, 4 })
            for (const double noise : { 2.0, 100.0 }) {
                auto frames = captures::multi_phase_capture(size, periods, [](int x, int y) { return 2.5 * x + y; });
                captures::add_noise(frames, noise, rng);
                frames.resize(2 + 3 * static_cast<size_t>(steps));
                MultiPhaseMatchingParam params = params_of(periods, steps);
                if (size.width > 200) { // dark columns on both sides and in between
                    params.min_white = 60;
                    const int third = size.width / 3;
                    for (const int x : { 0, third + 40, 2 * third })
                        frames[1].colRange(x, x + (x == third + 40 ? 9 : third)).setTo(0);
                }
                for (const int threads : { 1, 2, 3, 7 }) {
                    if (threads > 1 && noise < 3) continue;
                    const captures::Threads set(threads);
                    MultiPhaseDecoder decoder(0, &params, &table, steps, 3);
                    captures::give_all(decoder, frames);
                    decoder.preproc();
                    for (int y = 0; y < size.height && steps == 3; ++y) { // which has but one way
                        const auto& valid = decoder.valid[static_cast<size_t>(y)];
                        std::vector<float> phase(static_cast<size_t>(size.width), 0.0F);
                        for (size_t f = 0; f < 3; ++f) {
                            const auto* I = &frames[2 + 3 * f];
                            phase3_row({ I[0][y], I[1][y], I[2][y] }, phase_offset(periods[f]), columns_of(valid),
                                phase.data());
                            ASSERT_EQ(std::memcmp(decoder.phases[f][y], phase.data(), 4 * phase.size()), 0) << y;
                        }
                    }
                    captures::expect_same_in_one_pass(decoder);
                }
            }
}

/// Hands three phase images to a loader of these periods, and unwraps.
void load(MultiPhaseLoader& loader, const std::vector<cv::Mat_<float>>& phases)
{
    const cv::Mat_<uchar> grey(phases[0].size(), uchar { 0 });
    captures::give(loader, grey, 0);
    captures::give(loader, grey, 1);
    for (size_t f = 0; f < phases.size(); ++f)
        EXPECT_EQ(captures::give(loader, phases[f], static_cast<int>(2 + f), 1 + f), 1);
    loader.preproc();
    loader.unwrap();
}

TEST(MultiPhase, LoadedPhasesOfAnyKindAreResolvedByTheTableAndPruned)
{
    std::mt19937 rng(13);
    std::uniform_int_distribution<int> pick(0, 60);
    const float odd[] = { std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
        -std::numeric_limits<float>::infinity(), 1e30F, -1e30F, 1.5F, -0.5F };
    for (const Periods& periods : { Periods { 9, 10, 11 }, Periods { 11, 10, 9 }, Periods { 8, 9, 10 } }) {
        const FringePairTable table(periods);
        const MultiPhaseMatchingParam params = params_of(periods);
        std::vector<cv::Mat_<float>> phases(3);
        for (size_t f = 0; f < 3; ++f) {
            phases[f].create(37, 211);
            for (int i = 0; i < 37 * 211; ++i) {
                const int which = pick(rng), at = 13 * (i % 211) / 10 + i / 211;
                phases[f](i / 211, i % 211)
                    = which < 7 ? odd[which] : static_cast<float>(at % periods[f]) / static_cast<float>(periods[f]);
            }
        }
        MultiPhaseLoader loader(1, &params, &table);
        EXPECT_EQ(loader.inputs(), 5);
        EXPECT_EQ(captures::give(loader, phases[0], 5), 0) << "count + 2";
        load(loader, phases);
        for (int y = 0; y < 37; ++y) {
            for (int x = 0; x < 211; ++x) {
                const float p[] = { phases[0](y, x), phases[1](y, x), phases[2](y, x) };
                const float coordinate = table.unwrap(p);
                ASSERT_EQ(loader.unwrapped(y, x), coordinate > 912 ? 0.0F : coordinate);
            }
            const std::vector<int>& kept = loader.valid[static_cast<size_t>(y)];
            EXPECT_TRUE(std::is_sorted(kept.begin(), kept.end(),
                [&](int a, int b) { return loader.unwrapped(y, a) < loader.unwrapped(y, b); }));
        }
    }
}

TEST(MultiPhase, Coordinate912IsKeptAndALargerOneIsNot)
{
    const Periods periods { 16, 32, 57 }; // 912 = 57 16 + 0 = 28 32 + 16 = 16 57 + 0
    const FringePairTable table(periods);
    const MultiPhaseMatchingParam params = params_of(periods);
    MultiPhaseLoader loader(0, &params, &table);
    std::vector<cv::Mat_<float>> phases(3);
    for (size_t f = 0; f < 3; ++f) {
        phases[f].create(1, 5);
        const double at[] = { 900, 905, 911, 912, 912.5 };
        for (int x = 0; x < 5; ++x)
            phases[f](0, x) = static_cast<float>(std::fmod(at[x], periods[f]) / periods[f]);
    }
    load(loader, phases);
    EXPECT_EQ(loader.valid, (std::vector<std::vector<int>> { { 0, 1, 2, 3 } }));
    EXPECT_EQ(loader.unwrapped(0, 3), 912.0F);
    EXPECT_EQ(loader.unwrapped(0, 4), 0.0F);
}

TEST(MultiPhase, AnyRecordOrderAndSizeOfDecoderIsSurvived)
{
    const captures::Threads one(1); // hundreds of small decoders: forming teams would take most of the time
    std::mt19937 rng(14);
    const FringePairTable table({ 9, 10, 11 });
    const FringePairTable none({ 9, 10 });
    const auto frames = captures::random_frames(40, { 21, 5 }, rng);
    MultiPhaseMatchingParam params = params_of({ 9, 10, 11 });
    for (const int steps : { INT_MIN, -1, 0, 1, 2, 3, 4, 5, INT_MAX })
        for (const int nperiods : { INT_MIN, 0, 1, 2, 3, 4, INT_MAX })
            for (const FringePairTable* t : { static_cast<const FringePairTable*>(nullptr), &none, &table }) {
                MultiPhaseDecoder decoder(0, &params, t, steps, nperiods);
                decoder.unwrap();
                captures::expect_nothing(decoder);
                captures::give_all(decoder, frames);
                params.nperiods = 99; // a rejected record is in force
                params.steps = 77;
                std::fill(std::begin(params.periods), std::end(params.periods), steps);
                decoder.preproc();
                decoder.unwrap();
                if (t != &table || nperiods < 3 || steps < 3) captures::expect_nothing(decoder);
                decoder.preproc();
                captures::expect_same_in_one_pass(decoder);
            }
    MultiPhaseDecoder five(0, &params, &table, 5, 1), four(0, &params, &table, 4, 1);
    params.periods[0] = 9;
    for (MultiPhaseDecoder* decoder : { &five, &four }) { // five shifts: the first four of them are decoded
        captures::give_all(*decoder, frames);
        decoder->preproc();
    }
    EXPECT_TRUE(same_bits(five.phases[0], four.phases[0]));
    MultiPhaseDecoder without(0, &params, &table, 4, 0);
    EXPECT_EQ(without.frame_count, 2);
    EXPECT_TRUE(without.phases.empty());
    MultiPhaseLoader unbuilt(0, nullptr, nullptr);
    unbuilt.preproc();
    unbuilt.unwrap();
    captures::expect_nothing(unbuilt);
}

} // namespace
