// The row kernels in every form that the processor has, against their readable twins.
#include "base/cpu.h"
#include "matching/reproject_row.h"
#include "matching/row_matcher.h"
#include "reference/plain_reprojection.h"
#include "reference/readable_matcher.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>

using namespace vexo;

namespace {

class MatchingRows : public testing::TestWithParam<Cpu::Form> {
protected:
    void SetUp() override
    {
        if (Cpu::allow(GetParam()) != GetParam()) GTEST_SKIP() << "not on this processor";
    }
    void TearDown() override { Cpu::allow(Cpu::Form::avx512); }

    double unit() { return std::uniform_real_distribution<double>(0.0, 1.0)(rng); }

    std::mt19937 rng { 11 };
};
INSTANTIATE_TEST_SUITE_P(
    EveryForm, MatchingRows, testing::Values(Cpu::Form::plain, Cpu::Form::avx2, Cpu::Form::avx512));

constexpr float inf = std::numeric_limits<float>::infinity();
const int widths[] = { 1, 2, 3, 5, 6, 7, 8, 9, 15, 16, 17, 21, 24, 33, 64, 100, 257, 1280 };

plain::Row row_of(int width, double density, const std::function<double(int)>& phase, std::mt19937& rng)
{
    plain::Row row { {}, std::vector<float>(static_cast<std::size_t>(width), 0.0F) };
    std::bernoulli_distribution valid(density);
    for (int x = 0; x < width; ++x) {
        row.phase[static_cast<std::size_t>(x)] = static_cast<float>(phase(x));
        if (valid(rng)) row.list.push_back(x);
    }
    row.list.shrink_to_fit(); // so that a sanitizer sees one entry too many
    row.phase.shrink_to_fit();
    return row;
}

bool same_bits(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

std::vector<uchar> mask_of(const plain::Row& row)
{
    std::vector<uchar> mask(row.phase.size(), 0);
    for (const int x : row.list)
        mask[static_cast<std::size_t>(x)] = 255;
    return mask;
}

/// @return whether the kernel took the row; then it must equal the twin
bool expect_twin(RowMatcher& matcher, const plain::Row& left, const plain::Row& right, int samples, bool interpolate,
    const char* what)
{
    const vexo::PhaseMatchingParam limits = plain::limits_of(0.4, -100.0, 200.0, samples);
    std::vector<double> got(left.phase.size(), -101.0);
    const std::vector<uchar> left_mask = mask_of(left), right_mask = mask_of(right);
    const bool taken = matcher.match({ left_mask.data(), left.phase.data() }, { right_mask.data(), right.phase.data() },
        static_cast<int>(left.phase.size()),
        { limits.max_phase_diff, limits.min_disparity, limits.max_disparity, -101.0, samples }, interpolate,
        got.data());
    const auto expected = taken ? plain::ReadableMatcher(limits).match(left, right, interpolate)
                                : std::vector<double>(left.phase.size(), -101.0);
    EXPECT_TRUE(same_bits(got, expected))
        << what << ", width " << left.phase.size() << ", " << samples << " samples, interpolated " << interpolate;
    return taken;
}

} // namespace

TEST_P(MatchingRows, MatchingEqualsItsReadableTwinOnRowsOfEveryKind)
{
    struct Kind {
        const char* name;
        std::function<double(int)> phase;
    };
    double level = 0.0;
    const Kind kinds[] = {
        { "rising", [](int x) { return x * 0.11; } },
        { "rising with noise", [&](int x) { return x * 0.11 + 0.02 * unit(); } },
        { "falling here and there", [&](int x) { return x * 0.11 + 0.4 * unit(); } },
        { "steps up and down", [&](int x) { return (x % 40 == 0 ? level += 4 * unit() - 1.5 : level) + x * 0.05; } },
        { "falling", [](int x) { return -x * 0.11; } },
        { "flat", [](int) { return 3.0; } },
        { "plateaus", [](int x) { return std::floor(x / 5.0) * 0.5; } },
        { "few values", [&](int) { return std::floor(5 * unit()); } },
        { "anything", [&](int) { return 100 * unit() - 50; } },
        { "sawtooth", [](int x) { return (x % 13) * 0.3; } },
        { "steep", [](int x) { return x * 3.0; } },
        { "zeros of both signs", [&](int x) { return x % 2 == 0 ? 0.0 : -0.0; } },
    };
    for (const int width : widths) {
        RowMatcher matcher;
        matcher.reserve(width);
        for (const Kind& left : kinds)
            for (const Kind& right : kinds)
                for (const double density : { 1.0, 0.9, 0.3 }) {
                    const plain::Row a = row_of(width, density, left.phase, rng);
                    const plain::Row b = row_of(width, density, right.phase, rng);
                    for (const int samples : { 3, 5 })
                        for (const bool interpolate : { false, true })
                            EXPECT_TRUE(expect_twin(matcher, a, b, samples, interpolate, left.name)) << right.name;
                    expect_twin(matcher, a, a, 5, false, left.name);
                }
    }
}

TEST_P(MatchingRows, MatchingLeavesRowsThatAreNoNumbersAloneOrEqualsTheTwin)
{
    const float wild[] = { NAN, inf, -inf, FLT_MAX, -FLT_MAX, FLT_MIN, 1e-45F };
    for (const int width : { 3, 9, 40, 130 }) {
        RowMatcher matcher;
        matcher.reserve(width);
        for (int i = 0; i < 300; ++i) {
            plain::Row rows[2];
            for (plain::Row& row : rows) {
                row = row_of(
                    width, 0.95, [](int x) { return x * 0.1; }, rng);
                for (int k = 0; k < 2; ++k)
                    if (rng() % 2 == 0) row.phase[rng() % row.phase.size()] = wild[rng() % 7];
            }
            expect_twin(matcher, rows[0], rows[1], 3, false, "wild");
            expect_twin(matcher, rows[0], rows[1], 5, true, "wild");
        }
    }
}

TEST_P(MatchingRows, ValidColumnsAreThoseWhereTheMaskIs255)
{
    for (const int width : widths)
        for (const unsigned kind : { 0U, 1U, 2U, 3U }) {
            std::vector<uchar> mask;
            std::vector<int> expected, got(static_cast<std::size_t>(width));
            for (int x = 0; x < width; ++x) {
                const auto random = static_cast<uchar>(rng() % 4 == 0 ? rng() % 255 : 255);
                mask.push_back(kind == 0 ? 255 : kind == 1 ? 0 : kind == 2 ? 254 : random);
                if (mask.back() == 255) expected.push_back(x);
            }
            mask.shrink_to_fit();
            got.resize(static_cast<std::size_t>(list_valid_columns(mask.data(), width, got.data())));
            EXPECT_EQ(got, expected) << width << ' ' << kind;
        }
}

/// A host may let floating-point exceptions end it.
TEST_P(MatchingRows, ReprojectionOfInfinitelyFarPixelsDividesByNothing)
{
    const cv::Matx44d H(1, 0, 0, -640, 0, 1, 0, -512, 0, 0, 0, 1400, 0, 0, 1 / 160.0, 0.0);
    const std::vector<double> disparity { 5, 0, -0.0, 7, 0, 0, 0, 0, -301, 0, 3 };
    std::vector<cv::Point3f> points(disparity.size());
    std::feclearexcept(FE_ALL_EXCEPT);
    const int count = reproject_row(H, 3, disparity.data(), static_cast<int>(disparity.size()), -301.0, points.data());
    EXPECT_EQ(std::fetestexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW), 0);
    EXPECT_EQ(count, 3);
}

TEST_P(MatchingRows, LinesThatDoNotRiseDivideByNothing)
{
    const plain::Row flat = row_of(
        130, 1.0, [](int) { return 3.0; }, rng);
    RowMatcher matcher;
    matcher.reserve(130);
    std::feclearexcept(FE_ALL_EXCEPT);
    EXPECT_TRUE(expect_twin(matcher, flat, flat, 5, false, "flat"));
    EXPECT_EQ(std::fetestexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW), 0);
}

TEST_P(MatchingRows, ReprojectionEqualsItsPlainTwin)
{
    const double wild[] = { -301.0, 0.0, -0.0, NAN, HUGE_VAL, -HUGE_VAL, DBL_MAX, 1e-320, -5.0 };
    cv::Matx44d rectified(1, 0, 0, -640, 0, 1, 0, -512, 0, 0, 0, 1400, 0, 0, 1 / 160.0, 0.0);
    for (int trial = 0; trial < 40; ++trial)
        for (const int width : widths) {
            cv::Matx44d H = rectified;
            for (double& h : H.val)
                if (trial % 3 != 0) h = trial % 3 == 1 ? 10 * unit() - 5 : rng() % 2 == 0 ? 0.0 : unit();
            std::vector<double> disparity;
            for (int x = 0; x < width; ++x)
                disparity.push_back(rng() % 4 == 0 ? wild[rng() % 9] : 200 * unit() - 50);
            disparity.shrink_to_fit();
            std::vector<cv::Point3f> got(disparity.size()), expected(disparity.size());
            const int count = reproject_row(H, trial, disparity.data(), width, -301.0, got.data());
            EXPECT_EQ(count, plain::reproject(H, trial, disparity, -301.0, expected));
            EXPECT_EQ(plain::bits(got), plain::bits(expected)) << "width " << width << " trial " << trial;
        }
}
