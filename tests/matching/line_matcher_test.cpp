#include "matching/PhaseStereoMatching.h"
#include "reference/readable_matcher.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

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

} // namespace

TEST(LineMatcher, RowsThatTheKernelLeavesAreMatchedReadably)
{
    const std::vector<plain::Row> left(2, straight_row(64, 0, columns(20, 50)));
    std::vector<plain::Row> right { straight_row(64, 4, columns(0, 60)), straight_row(64, 5, columns(0, 60)) };
    right[0].phase[33] = std::nanf(""); // not on the way of a search for column 41
    for (const int fit_points : { 3, 5 })
        for (const bool interpolate : { false, true }) {
            const PhaseMatchingParam record = plain::limits_of(0.2, -300, 400, fit_points);
            const cv::Mat got = Probe().match(left, right, record, interpolate);
            for (const int row : { 0, 1 }) {
                const auto at = static_cast<std::size_t>(row);
                const auto expected = plain::ReadableMatcher(record).match(left[at], right[at], interpolate);
                EXPECT_EQ(std::memcmp(got.ptr(row), expected.data(), expected.size() * sizeof(double)), 0);
                EXPECT_NEAR(expected[45], 4.0 + row, 1e-4) << fit_points << ' ' << interpolate;
            }
        }
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
    // Camera 1 sees at column x - 10.25 what camera 0 sees at column x.
    const std::vector<plain::Row> left { straight_row(64, 0, columns(20, 50)) };
    const std::vector<plain::Row> right { straight_row(64, 10.25, columns(5, 45)) };
    const auto value_at_30 = [&](double min, double max) {
        return Probe().match(left, right, plain::limits_of(0.1, min, max, 3), false).at<double>(0, 30);
    };
    EXPECT_DOUBLE_EQ(value_at_30(-300, 400), 10.25); // eighths and quarters: no rounding at all
    EXPECT_DOUBLE_EQ(value_at_30(10.25, 10.25), 10.25);
    EXPECT_DOUBLE_EQ(value_at_30(10.5, 400), 9.5);
    EXPECT_DOUBLE_EQ(value_at_30(-300, 10), -301);
    EXPECT_TRUE(std::isnan(value_at_30(std::nan(""), 400)));
}

TEST(LineMatcher, PhaseDifferenceLimitIsInclusiveAndInTheUnitOfTheMap)
{
    // Right columns 12 px apart: at x = 30 (phase 3.75) the nearest right phase is 4.5 or 3.
    const std::vector<plain::Row> left { straight_row(64, 0, columns(20, 50)) };
    const std::vector<plain::Row> right { straight_row(64, 0, { 12, 24, 36, 48 }) };
    const auto value = [&](double limit) {
        return Probe().match(left, right, plain::limits_of(limit, -300, 400, 3), false).at<double>(0, 30);
    };
    EXPECT_DOUBLE_EQ(value(0.75), 0.0);
    EXPECT_DOUBLE_EQ(value(0.7499), -301.0);
}

TEST(LineMatcher, PlainModeSkipsInvalidColumnsAndInterpolationFillsThem)
{
    Probe probe;
    const std::vector<plain::Row> left { straight_row(64, 0, { 20, 22, 25, 31, 40 }) };
    const std::vector<plain::Row> right { straight_row(64, 4, columns(0, 60)) };
    const cv::Mat plain_map = probe.match(left, right, plain::limits_of(0.2, -300, 400, 3), false);
    const cv::Mat filled = probe.match(left, right, plain::limits_of(0.2, -300, 400, 3), true);
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
            { straight_row(64, 0, std::move(right)) }, plain::limits_of(9, -300, 400, fit_points), interpolate);
        return cv::countNonZero(map != -301.0);
    };
    EXPECT_EQ(measured(columns(10, 20), { 10, 20 }, 3, false), 0);
    EXPECT_EQ(measured(columns(10, 20), { 10, 15, 20 }, 3, false), 11);
    for (const int five : { 5, 4, 0, INT_MIN, INT_MAX }) // any number other than 3
        EXPECT_EQ(measured(columns(10, 20), { 10, 12, 15, 20 }, five, false), 0) << five;
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
    const cv::Mat map
        = probe.match({ straight_row(64, 0.3, { 10 }) }, { right }, plain::limits_of(9, -300, 400, 3), false);
    const double d = map.at<double>(0, 10);
    EXPECT_EQ(d, std::round(d));
    EXPECT_NE(d, -301.0);
}
