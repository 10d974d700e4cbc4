#include "matching/PhaseStereoMatching.h"
#include "reference/plain_line_matcher.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using namespace vexo;

namespace {

/// A decoder that holds a given map.
struct GivenMap : ProjectorPositions {
    explicit GivenMap(const std::vector<plain::Row>& rows)
        : ProjectorPositions(0, 0)
    {
        const int height = static_cast<int>(rows.size()), width = static_cast<int>(rows[0].phase.size());
        unwrapped.create(height, width);
        vmask.create(height, width);
        vmask.setTo(0);
        for (int r = 0; r < height; ++r) {
            const plain::Row& row = rows[static_cast<std::size_t>(r)];
            std::copy(row.phase.begin(), row.phase.end(), unwrapped[r]);
            for (const int x : row.list)
                vmask(r, x) = 255;
        }
    }
    int set_input(void*, int, int, unsigned long, int) override { return 0; }
    void preproc() override { }
    void unwrap() override { }
};

/// The matcher between given maps.
struct Probe final : PhaseStereoMatching {
    void destroy() override { }
    int get_datatype() const override { return 0; }
    using PhaseStereoMatching::_nearest;

    cv::Mat match(const std::vector<plain::Row>& left, const std::vector<plain::Row>& right,
        const PhaseMatchingParam& record, bool interpolate)
    {
        PhaseMatchingParam copy = record;
        setparams(&copy);
        decoders[0] = std::make_unique<GivenMap>(left);
        decoders[1] = std::make_unique<GivenMap>(right);
        output_height = static_cast<int>(left.size());
        output_width = static_cast<int>(left[0].phase.size());
        _make_disparity_data(interpolate);
        return disparity.clone();
    }
};

PhaseMatchingParam record_of(double max_phase_diff, double min, double max, int fit_points)
{
    PhaseMatchingParam record;
    record.max_phase_diff = max_phase_diff;
    record.min_disparity = min;
    record.max_disparity = max;
    record.fit_points = fit_points;
    return record;
}

/// Row with phase (x + shift) / 8 at the given columns.
plain::Row straight_row(int width, double shift, std::vector<int> columns)
{
    plain::Row row { std::move(columns), std::vector<float>(static_cast<std::size_t>(width), 0.0F) };
    for (const int x : row.list)
        row.phase[static_cast<std::size_t>(x)] = static_cast<float>((x + shift) / 8);
    return row;
}

std::vector<int> columns(int first, int last)
{
    std::vector<int> list;
    for (int x = first; x <= last; ++x)
        list.push_back(x);
    return list;
}

/// A row as captures give it and worse: gaps, noise, falling stretches, plateaus, jumps, NaN.
plain::Row random_row(int width, std::mt19937& rng)
{
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double density = unit(rng), noise = unit(rng) < 0.5 ? 0.001 : 0.2, step = unit(rng) * 0.2;
    const double wild = unit(rng) < 0.5 ? 0.0 : 0.05;
    plain::Row row { {}, std::vector<float>(static_cast<std::size_t>(width), 0.0F) };
    double phase = unit(rng);
    for (int x = 0; x < width; ++x) {
        const double kind = unit(rng);
        if (kind < wild)
            phase -= 2.0 * unit(rng);
        else if (kind > 0.1)
            phase += step;
        auto value = static_cast<float>(phase + noise * (unit(rng) - 0.5));
        if (unit(rng) < wild * 0.1) value = std::numeric_limits<float>::quiet_NaN();
        row.phase[static_cast<std::size_t>(x)] = value;
        if (unit(rng) < density) row.list.push_back(x);
    }
    return row;
}

bool same_bits(const double* a, const std::vector<double>& b)
{
    return std::memcmp(a, b.data(), b.size() * sizeof(double)) == 0;
}

} // namespace

TEST(LineMatcher, EqualsItsPlainTwinBitForBit)
{
    std::mt19937 rng(7);
    Probe probe;
    for (const int width : { 1, 2, 7, 160, 1280 })
        for (const int fit_points : { 3, 5 })
            for (const bool interpolate : { false, true }) {
                std::vector<plain::Row> left, right;
                for (int i = 0; i < 60; ++i) {
                    left.push_back(random_row(width, rng));
                    right.push_back(i % 3 == 0 ? left.back() : random_row(width, rng));
                }
                const PhaseMatchingParam record = record_of(0.5, -100.0, 200.0, fit_points);
                const cv::Mat got = probe.match(left, right, record, interpolate);
                const plain::Limits limits { 0.5, 200.0, -100.0, fit_points };
                for (std::size_t r = 0; r < left.size(); ++r) {
                    const auto expected = interpolate ? plain::match_interpolated(left[r], right[r], limits)
                                                      : plain::match_valid(left[r], right[r], limits);
                    ASSERT_TRUE(same_bits(got.ptr<double>(static_cast<int>(r)), expected))
                        << "width " << width << " fit " << fit_points << " interpolate " << interpolate << " row " << r;
                }
            }
}

TEST(LineMatcher, IsTheSameForAnyNumberOfThreads)
{
    std::mt19937 rng(8);
    std::vector<plain::Row> left, right;
    for (int i = 0; i < 75; ++i) {
        left.push_back(random_row(200, rng));
        right.push_back(random_row(200, rng));
    }
    const int before = omp_get_max_threads();
    Probe probe;
    cv::Mat first;
    for (const int threads : { 1, 2, 3, 7 }) {
        omp_set_num_threads(threads);
        const cv::Mat got = probe.match(left, right, PhaseMatchingParam(), true);
        if (first.empty()) first = got;
        EXPECT_EQ(std::memcmp(first.data, got.data, got.total() * sizeof(double)), 0) << threads << " threads";
    }
    omp_set_num_threads(before);
}

TEST(LineMatcher, NearestFindsThePositionOfEqualOrClosestPhase)
{
    const std::vector<int> list { 1, 3, 4, 6, 9 };
    const float row[] = { 0, 1.0F, 0, 2.0F, 3.0F, 0, 5.0F, 0, 0, 6.0F };
    for (int k = 0; k < 5; ++k)
        EXPECT_EQ(Probe::_nearest(row[list[static_cast<std::size_t>(k)]], row, list), k);
    EXPECT_EQ(Probe::_nearest(0.999F, row, list), -1);
    EXPECT_EQ(Probe::_nearest(6.001F, row, list), -1);
    EXPECT_EQ(Probe::_nearest(3.9F, row, list), 2);
    EXPECT_EQ(Probe::_nearest(4.1F, row, list), 3);
    EXPECT_EQ(Probe::_nearest(4.0F, row, list), 3); // a tie goes to the later one
    EXPECT_EQ(Probe::_nearest(1.0F, row, { 1 }), 0);
    EXPECT_EQ(Probe::_nearest(1.0F, row, {}), -1);
}

TEST(LineMatcher, FindsTheSubPixelColumnWithinInclusiveLimits)
{
    Probe probe;
    const auto value_at_30 = [&](double shift, double min, double max) {
        // camera 1 sees at column x - 10.25 + shift what camera 0 sees at column x
        return probe
            .match({ straight_row(64, 0, columns(20, 50)) }, { straight_row(64, 10.25 + shift, columns(5, 45)) },
                record_of(0.1, min, max, 3), false)
            .at<double>(0, 30);
    };
    EXPECT_DOUBLE_EQ(value_at_30(0, -300, 400), 10.25); // eighths and quarters: no rounding at all
    EXPECT_DOUBLE_EQ(value_at_30(0, 10.25, 10.25), 10.25);
    EXPECT_DOUBLE_EQ(value_at_30(0, 10.5, 400), 9.5);
    EXPECT_DOUBLE_EQ(value_at_30(0, -300, 10), -301);
    EXPECT_TRUE(std::isnan(value_at_30(0, std::nan(""), 400)));
}

TEST(LineMatcher, PhaseDifferenceLimitIsInclusiveAndInTheUnitOfTheMap)
{
    Probe probe;
    // Right columns 12 px apart: at x = 30 (phase 3.75) the nearest right phase is 4.5 or 3.
    const auto value = [&](double limit) {
        return probe
            .match({ straight_row(64, 0, columns(20, 50)) }, { straight_row(64, 0, { 12, 24, 36, 48 }) },
                record_of(limit, -300, 400, 3), false)
            .at<double>(0, 30);
    };
    EXPECT_DOUBLE_EQ(value(0.75), 0.0);
    EXPECT_DOUBLE_EQ(value(0.7499), -301.0);
}

TEST(LineMatcher, PlainModeSkipsInvalidColumnsAndInterpolationFillsThem)
{
    Probe probe;
    const std::vector<plain::Row> left { straight_row(64, 0, { 20, 22, 25, 31, 40 }) };
    const std::vector<plain::Row> right { straight_row(64, 4, columns(0, 60)) };
    const cv::Mat plain_map = probe.match(left, right, record_of(0.2, -300, 400, 3), false);
    const cv::Mat filled = probe.match(left, right, record_of(0.2, -300, 400, 3), true);
    for (int x = 0; x < 64; ++x) {
        const auto& list = left[0].list;
        const bool valid = std::find(list.begin(), list.end(), x) != list.end();
        EXPECT_DOUBLE_EQ(plain_map.at<double>(0, x), valid ? 4.0 : -301.0) << x;
        if (x < 20 || x > 40)
            EXPECT_DOUBLE_EQ(filled.at<double>(0, x), -301.0) << x;
        else
            EXPECT_NEAR(filled.at<double>(0, x), 4.0, 1e-4) << x; // through float sums and a float phase
    }
}

TEST(LineMatcher, RowsWithTooFewColumnsAreInvalid)
{
    Probe probe;
    const auto measured = [&](std::vector<int> left, std::vector<int> right, int fit_points, bool interpolate) {
        const cv::Mat map = probe.match({ straight_row(64, 0, std::move(left)) },
            { straight_row(64, 0, std::move(right)) }, record_of(9, -300, 400, fit_points), interpolate);
        return cv::countNonZero(map != -301.0);
    };
    EXPECT_EQ(measured(columns(10, 20), { 10, 20 }, 3, false), 0);
    EXPECT_EQ(measured(columns(10, 20), { 10, 15, 20 }, 3, false), 11);
    EXPECT_EQ(measured(columns(10, 20), { 10, 12, 15, 20 }, 5, false), 0);
    EXPECT_EQ(measured({ 12 }, columns(0, 30), 3, false), 1);
    EXPECT_EQ(measured({ 10, 20 }, columns(0, 30), 3, true), 0);
    EXPECT_EQ(measured({ 10, 14, 20 }, columns(0, 30), 3, true), 11);
    EXPECT_EQ(measured({}, columns(0, 30), 3, true), 0);
    EXPECT_EQ(measured({}, {}, 3, false), 0);
}

TEST(LineMatcher, WithoutARisingLineTheDisparityIsAnInteger)
{
    Probe probe;
    plain::Row right = straight_row(64, 0, columns(5, 15));
    right.phase[9] = 9.0F; // falls from here: no rising line around columns 9 and 10
    right.phase[10] = 1.25F;
    const cv::Mat map = probe.match({ straight_row(64, 0.3, { 10 }) }, { right }, record_of(9, -300, 400, 3), false);
    const double d = map.at<double>(0, 10);
    EXPECT_EQ(d, std::round(d));
    EXPECT_NE(d, -301.0);
}

TEST(LineMatcher, HostileLimitsOnlyEmptyTheMap)
{
    Probe probe;
    const std::vector<plain::Row> rows { straight_row(64, 0, columns(5, 45)) };
    for (const double bad : { std::nan(""), HUGE_VAL, -HUGE_VAL, DBL_MAX, -DBL_MAX })
        for (const int fit_points : { 0, INT_MIN, INT_MAX, 4 })
            for (const bool interpolate : { false, true }) {
                probe.match(rows, rows, record_of(bad, -300, 400, fit_points), interpolate);
                probe.match(rows, rows, record_of(1, bad, 400, fit_points), interpolate);
                probe.match(rows, rows, record_of(1, -300, bad, fit_points), interpolate);
            }
    // any number of fit points other than 3 means five
    const cv::Mat four = probe.match(rows, rows, record_of(1, -300, 400, 4), false);
    const cv::Mat five = probe.match(rows, rows, record_of(1, -300, 400, 5), false);
    EXPECT_EQ(cv::norm(four, five, cv::NORM_INF), 0.0);
}
