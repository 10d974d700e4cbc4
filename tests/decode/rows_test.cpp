#include "base/cpu.h"
#include "decode/AngleTable.h"
#include "decode/frames.h"
#include "decode/FringePairTable.h"
#include "decode/GrayPhaseDecoder.h"
#include "decode/MultiPhaseDecoder.h"
#include "decode/MultiPhaseLoader.h"
#include "decode/pixel_formulas.h"
#include "decode/rows/gray_row.h"
#include "decode/rows/kernels.h"
#include "decode/rows/multi_row.h"

#include <gtest/gtest.h>

using namespace vexo;

namespace {

/// A row on the heap that ends with its last element: AddressSanitizer sees every byte read or written behind it.
template <class T> class Row {
public:
    explicit Row(int cols)
        : _first(new T[static_cast<size_t>(cols)]())
    {
    }
    Row(const T* from, int cols)
        : Row(cols)
    {
        std::copy(from, from + cols, _first.get());
    }
    T* data() const { return _first.get(); }
    T& operator[](int x) const { return _first[static_cast<size_t>(x)]; }

private:
    std::unique_ptr<T[]> _first;
};

using Bytes = Row<uint8_t>;
using Floats = Row<float>;

std::vector<Bytes> rows_of(const captures::Frames& frames)
{
    std::vector<Bytes> rows;
    for (const cv::Mat_<uchar>& frame : frames)
        rows.emplace_back(frame[0], frame.cols);
    return rows;
}

/// Every kernel in every form that the processor has.
class RowKernelsTest : public testing::TestWithParam<Cpu::Form> {
protected:
    void SetUp() override
    {
        if (Cpu::allow(GetParam()) != GetParam()) GTEST_SKIP() << "not on this processor";
        kernels = &row_kernels();
    }
    void TearDown() override { Cpu::allow(Cpu::Form::avx512); }

    const RowKernels* kernels = nullptr;
    const float* angles = AngleTable::instance().data();
    std::mt19937 rng { 21 };
};

TEST(AngleTable, EveryDifferenceHasTheBitsOfTheDoubleAtan2)
{
    for (int s = -255; s <= 255; ++s)
        for (int c = -255; c <= 255; ++c) {
            const auto expected = static_cast<float>(std::atan2(static_cast<double>(s), static_cast<double>(c)));
            const float got = AngleTable::instance()(s, c);
            if (std::memcmp(&got, &expected, 4) != 0) FAIL() << s << ", " << c;
        }
}

TEST(BitRow, AgreeWithBytesBitByBit)
{
    std::mt19937 rng(20);
    for (const int cols : { 1, 7, 8, 63, 64, 65, 127, 128, 500 })
        for (const double share : { 0.0, 0.02, 0.5, 1.0 }) {
            std::bernoulli_distribution set(share);
            Bytes flags(static_cast<int>(BitRow::flags_of(cols)));
            for (int x = 0; x < cols; ++x)
                flags[x] = set(rng) ? 255 : 0;
            BitRow bits;
            bits.resize(cols);
            bits.pack(flags.data());
            int count = 0, last = -1;
            for (int x = 0; x < cols; ++x) {
                ASSERT_EQ(bits[x], flags[x] == 255);
                ASSERT_EQ(bits.before(x), last) << cols << " at " << x;
                if (!bits[x]) continue;
                if (last >= 0) {
                    ASSERT_EQ(bits.after(last), x);
                }
                last = x;
                ++count;
            }
            ASSERT_EQ(bits.count(), count);
            const BitRow::Range range = bits.range(cols);
            EXPECT_EQ(range.begin<range.end, count> 0);
            EXPECT_TRUE(count == 0 || (bits.before(range.begin) < 0 && last < range.end && range.end <= cols));
            Bytes mask(cols);
            bits.unpack(mask.data(), cols);
            EXPECT_EQ(std::memcmp(mask.data(), flags.data(), static_cast<size_t>(cols)), 0);
            if (last < 0) continue;
            EXPECT_EQ(bits.after(last), -1);
            bits.clear(last);
            EXPECT_EQ(bits.count(), count - 1);
        }
}

/// 255 at the columns of a list.
std::vector<uint8_t> mask_of(const std::vector<int>& list, int cols)
{
    std::vector<uint8_t> mask(static_cast<size_t>(cols), 0);
    for (const int x : list)
        mask[static_cast<size_t>(x)] = 255;
    return mask;
}

TEST_P(RowKernelsTest, LimitsOfAnyValueAcceptThePixelsWithinThem)
{
    const int cols = 256 + 61;
    const captures::Frames frames = captures::random_frames(2, { cols, 1 }, rng);
    const std::vector<Bytes> rows = rows_of(frames);
    GrayPhaseDecoder positions(0, 13, nullptr);
    positions.black = frames[0];
    positions.white = frames[1];
    const int limits[] = { INT_MIN, -256, -255, -254, -17, -1, 0, 1, 16, 128, 254, 255, 256, INT_MAX };
    for (const int min_contrast : limits)
        for (const int max_white : limits)
            for (const int min_white : limits) {
                std::vector<int> valid;
                for (int x = 0; x < cols; ++x) {
                    const int w = rows[1][x], b = rows[0][x];
                    if (min_white <= w && w <= max_white && w - b >= min_contrast) valid.push_back(x);
                }
                Bytes mask(cols);
                kernels->valid(
                    rows[1].data(), rows[0].data(), cols, byte_limits(min_contrast, max_white, min_white), mask.data());
                ASSERT_EQ(std::memcmp(mask.data(), mask_of(valid, cols).data(), cols), 0)
                    << min_contrast << " " << max_white << " " << min_white;
                positions.set_valid(min_contrast, max_white, min_white);
                ASSERT_EQ(positions.valid[0], valid);
            }
}

/// What resolve() needs of a table.
PairSlots slots_of(const FringePairTable& table)
{
    return { table.resolved.data(), { table.lower[0], table.lower[1] }, { table.range[0], table.range[1] }, table.tmax,
        table.scale, MultiPhaseHolder::max_coordinate };
}

TEST_P(RowKernelsTest, PositionsAreThoseOfThePhasesAndResolveAsTheTableSays)
{
    for (const std::vector<int>& periods : { std::vector<int> { 9, 10, 11 }, std::vector<int> { 31, 27, 24 },
             std::vector<int> { 7, 11, 13 }, std::vector<int> { 2, 3, 4000 } }) {
        const FringePairTable table(periods);
        ASSERT_GT(table.maxp, 912);
        for (const int cols : { 1, 7, 8, 9, 100, 1029 }) {
            const std::vector<Bytes> r = rows_of(captures::random_frames(13, { cols, 1 }, rng));
            std::vector<Floats> x;
            for (size_t f = 0; f < 3; ++f) {
                const uint8_t* steps[4]
                    = { r[4 * f].data(), r[4 * f + 1].data(), r[4 * f + 2].data(), r[4 * f + 3].data() };
                x.emplace_back(cols);
                kernels->position(steps, angles, phase_offset(periods[f]), periods[f], cols, x[f].data());
                std::vector<float> phase(static_cast<size_t>(cols));
                std::vector<int> all(static_cast<size_t>(cols));
                std::iota(all.begin(), all.end(), 0);
                phase4_row({ steps[0], steps[1], steps[2], steps[3] }, phase_offset(periods[f]), columns_of(all),
                    phase.data());
                for (int i = 0; i < cols; ++i)
                    ASSERT_EQ(x[f][i], static_cast<float>(periods[f]) * phase[static_cast<size_t>(i)]);
            }
            // True positions on most pixels, halves of a px off on some, and some far off: as a record with other
            // periods than the table's makes them.
            std::vector<std::array<float, 3>> phases(static_cast<size_t>(cols));
            std::uniform_real_distribution<float> wild(-0.99F, 1.99F);
            for (int i = 0; i < cols; ++i)
                for (size_t f = 0; f < 3; ++f) {
                    const float at = static_cast<float>(i) * 0.93F + (i % 5 == 0 ? 0.5F : 0.0F) * static_cast<float>(f);
                    float& phase = phases[static_cast<size_t>(i)][f];
                    phase = i % 7 == 3 ? wild(rng)
                                       : std::fmod(at, static_cast<float>(periods[f])) / static_cast<float>(periods[f]);
                    x[f][i] = static_cast<float>(periods[f]) * phase;
                }
            const Bytes mask(cols), kept(cols);
            const Floats out(cols);
            for (int i = 0; i < cols; ++i)
                mask[i] = i % 11 == 4 ? 0 : 255;
            const float* positions[3] = { x[0].data(), x[1].data(), x[2].data() };
            kernels->resolve(positions, mask.data(), slots_of(table), cols, out.data(), kept.data());
            for (int i = 0; i < cols; ++i) {
                const float expected = table.unwrap(phases[static_cast<size_t>(i)].data());
                const bool keep = mask[i] != 0 && !(expected > 912.0F);
                ASSERT_EQ(kept[i], keep ? 255 : 0) << testing::PrintToString(phases[static_cast<size_t>(i)]);
                ASSERT_EQ(out[i], keep ? expected : 0.0F);
            }
        }
    }
}

TEST_P(RowKernelsTest, PruningByFallsAndByWorkListEqualTheRounds)
{
    std::uniform_real_distribution<float> value(0.0F, 900.0F);
    for (const int cols : { 1, 2, 3, 4, 5, 63, 64, 65, 129, 640 })
        for (const double share : { 1.0, 0.9, 0.3, 0.02 })
            for (int kind = 0; kind < 6; ++kind) {
                std::bernoulli_distribution chosen(share);
                Floats v(cols);
                Bytes kept(static_cast<int>(BitRow::flags_of(cols)));
                std::vector<int> list;
                for (int x = 0; x < cols; ++x) {
                    const auto at = static_cast<float>(x);
                    const float kinds[] = { value(rng), x % 17 == 3 ? value(rng) : at,
                        x < cols / 2 ? at : at - static_cast<float>(cols) / 6, std::floor(value(rng) / 300.0F),
                        static_cast<float>(x % 23), static_cast<float>(cols - x) };
                    v[x] = kinds[kind];
                    if (!chosen(rng)) continue;
                    kept[x] = 255;
                    list.push_back(x);
                }
                MultiRow row;
                row.resize(cols);
                const Bytes mask(cols);
                row.prune(*kernels, v.data(), kept.data(), mask.data());
                std::vector<int> expected = list; // in rounds, until nothing changes; two prove nothing
                for (size_t before = 0; expected.size() != before && expected.size() > 2;) {
                    before = expected.size();
                    MultiPhaseHolder::_rm_extreme_value(v.data(), expected);
                }
                if (expected.size() < 3) expected.clear();
                ASSERT_EQ(std::memcmp(mask.data(), mask_of(expected, cols).data(), static_cast<size_t>(cols)), 0)
                    << "cols " << cols << " share " << share << " kind " << kind;
                MultiPhaseLoader holder(0, nullptr, nullptr);
                holder.unwrapped = cv::Mat_<float>(1, cols, v.data());
                holder.valid = { list };
                holder._remove_extreme_value();
                ASSERT_EQ(holder.valid[0], expected) << "cols " << cols << " share " << share << " kind " << kind;
            }
}

TEST_P(RowKernelsTest, GrayRowsDecodeAsInSteps)
{
    GrayPhaseMatchingParam params;
    params.anchor_length = 2;
    params.reject_length = 1;
    params.min_contrast = -200;
    for (const int cols : { 1, 2, 7, 31, 32, 33, 63, 64, 65, 128, 257, 640 })
        for (const double noise : { 0.0, 4.0, 200.0, 1e4 }) { // by the last all pixels are 0 or 255
            auto frames = captures::gray_phase_capture({ cols, 1 }, [](int x, int) { return 2 + .06 * x; });
            captures::add_noise(frames, noise, rng);
            const std::vector<Bytes> r = rows_of(frames);
            GrayPhaseDecoder expected(0, 13, &params);
            captures::give_all(expected, frames);
            expected.preproc();
            expected.unwrap();
            GrayRow row;
            row.resize(cols);
            const Floats out(cols);
            const Bytes mask(cols);
            row.decode(*kernels, angles,
                { r[0].data(), r[1].data(),
                    { r[2].data(), r[3].data(), r[4].data(), r[5].data(), r[6].data(), r[7].data(), r[8].data() },
                    { r[9].data(), r[10].data(), r[11].data(), r[12].data() } },
                { byte_limits(params.min_contrast, params.max_white, params.min_white), params.anchor_length,
                    params.reject_length, params.code_spread },
                out.data(), mask.data());
            ASSERT_EQ(std::memcmp(out.data(), expected.unwrapped.data, sizeof(float) * static_cast<size_t>(cols)), 0);
            ASSERT_EQ(std::memcmp(mask.data(), expected.vmask.data, static_cast<size_t>(cols)), 0);
        }
}

TEST(RowKernels, TheProcessorSwitchReachesEveryOne)
{
    const RowKernels* last = nullptr;
    for (const Cpu::Form form : { Cpu::Form::plain, Cpu::Form::avx2, Cpu::Form::avx512 }) {
        if (Cpu::allow(form) != form) continue;
        EXPECT_EQ(Cpu::has_avx2(), form != Cpu::Form::plain);
        EXPECT_EQ(Cpu::has_avx512(), form == Cpu::Form::avx512);
        const RowKernels& here = row_kernels();
        if (last != nullptr) {
            EXPECT_TRUE(here.valid != last->valid && here.code != last->code && here.phase != last->phase
                && here.rises != last->rises && here.join != last->join && here.position != last->position
                && here.falls != last->falls && (here.resolve != last->resolve || form == Cpu::Form::avx512));
        }
        last = &here;
    }
    Cpu::allow_avx2(true);
}

INSTANTIATE_TEST_SUITE_P(
    EveryForm, RowKernelsTest, testing::Values(Cpu::Form::plain, Cpu::Form::avx2, Cpu::Form::avx512));

TEST(Decode, TheSameSizeAgainAllocatesNothingAndAnotherSizeIsFollowed)
{
    std::mt19937 rng(23);
    GrayPhaseMatchingParam gray_params;
    MultiPhaseMatchingParam multi_params;
    const FringePairTable table({ 9, 10, 11 });
    GrayPhaseDecoder gray(0, 13, &gray_params);
    MultiPhaseDecoder multi(0, &multi_params, &table, 4, 3);
    for (const cv::Size size : { cv::Size(70, 9), cv::Size(200, 33), cv::Size(3, 40) })
        for (ProjectorPositions* decoder :
            { static_cast<ProjectorPositions*>(&gray), static_cast<ProjectorPositions*>(&multi) }) {
            captures::give_all(*decoder, captures::random_frames(decoder->inputs(), size, rng));
            decoder->decode();
            ASSERT_EQ(decoder->unwrapped.size(), size);
            const void *map = decoder->unwrapped.data, *mask = decoder->vmask.data;
            const cv::Mat before = decoder->unwrapped.clone();
            decoder->decode();
            EXPECT_TRUE(decoder->unwrapped.data == map && decoder->vmask.data == mask);
            EXPECT_TRUE(same_bits(decoder->unwrapped, before));
        }
}

TEST(Decode, ATableWhoseFailureValueCountsAsACoordinateGoesTheReadableWay)
{
    std::mt19937 rng(24);
    const std::vector<int> periods { 8, 9, 10 }; // 360: kept, as it is below 912
    const FringePairTable table(periods);
    MultiPhaseMatchingParam params;
    params.min_contrast = -255;
    params.min_white = 0;
    std::copy(periods.begin(), periods.end(), params.periods);
    MultiPhaseDecoder decoder(0, &params, &table, 4, 3);
    captures::give_all(decoder, captures::random_frames(14, { 100, 20 }, rng));
    decoder.preproc();
    decoder.unwrap();
    const cv::Mat map = decoder.unwrapped.clone(), mask = decoder.vmask.clone();
    EXPECT_GT(cv::countNonZero(map == 360.0F), 0);
    decoder.decode();
    EXPECT_TRUE(same_bits(decoder.unwrapped, map) && same_bits(decoder.vmask, mask));
}

} // namespace
