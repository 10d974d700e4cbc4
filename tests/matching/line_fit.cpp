#include "matching/LeastSquares.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>

using namespace vexo;

namespace {

template <class Fit> std::vector<int> span_at(int k, int size)
{
    std::vector<int> cols(static_cast<std::size_t>(size));
    std::iota(cols.begin(), cols.end(), 0);
    Fit fit;
    if (!fit.check(k, cols)) return {};
    return { std::begin(fit.span), std::end(fit.span) };
}

/// Largest error, px, of the column found for phases around each sample of a line of 16 px per period.
template <class Fit> double largest_error(int first, int last)
{
    std::vector<int> cols(static_cast<std::size_t>(last - first + 1));
    std::iota(cols.begin(), cols.end(), first);
    std::vector<float> phase(static_cast<std::size_t>(last) + 1);
    for (const int x : cols)
        phase[static_cast<std::size_t>(x)] = static_cast<float>(x / 16.0 + 0.3);
    double worst = 0.0;
    Fit fit;
    for (int k = 0; k < static_cast<int>(cols.size()); ++k)
        for (const double offset : { -0.5, 0.0, 0.5 }) {
            EXPECT_TRUE(fit.check(k, cols) && fit.solve(k, phase.data(), cols));
            const double x = cols[static_cast<std::size_t>(k)] + offset;
            worst = std::max(worst, std::abs((x / 16.0 + 0.3 - fit.intercept) / fit.slope - x));
        }
    return worst;
}

} // namespace

TEST(LineFit, SpanIsCentredAndStaysInsideTheList)
{
    using List = std::vector<int>;
    EXPECT_EQ(span_at<LeastSquares3<float>>(0, 2), List {});
    EXPECT_EQ(span_at<LeastSquares3<float>>(0, 3), (List { 0, 1, 2 }));
    EXPECT_EQ(span_at<LeastSquares3<float>>(0, 9), (List { 0, 1, 2 }));
    EXPECT_EQ(span_at<LeastSquares3<float>>(4, 9), (List { 3, 4, 5 }));
    EXPECT_EQ(span_at<LeastSquares3<float>>(8, 9), (List { 6, 7, 8 }));
    EXPECT_EQ(span_at<LeastSquares5<float>>(0, 4), List {});
    EXPECT_EQ(span_at<LeastSquares5<float>>(0, 9), (List { 0, 1, 2, 3, 4 }));
    EXPECT_EQ(span_at<LeastSquares5<float>>(1, 9), (List { 1, 2, 3, 4, 5 })); // at the position, not at 0
    EXPECT_EQ(span_at<LeastSquares5<float>>(2, 9), (List { 0, 1, 2, 3, 4 }));
    EXPECT_EQ(span_at<LeastSquares5<float>>(7, 9), (List { 4, 5, 6, 7, 8 }));
}

TEST(LineFit, OnTheRightHandSideOfAWideImageTheColumnIsStillSubPixel)
{
    // Sxy is a float sum of about 3e5, rounded by up to 0.035 in all; over D = 6 (three samples) that turns a
    // slope of 1/16 by up to 28 %, or 0.14 px at half a pixel from the centre and 0.28 px at the list's ends,
    // where the centre is a pixel away. With float products the column would be off by hundreds of px.
    EXPECT_LT(largest_error<LeastSquares3<float>>(1000, 1279), 0.45);
    EXPECT_LT(largest_error<LeastSquares5<float>>(1000, 1279), 0.45);
    // Near column 0 nothing cancels: only the samples' own rounding is left.
    EXPECT_LT(largest_error<LeastSquares3<float>>(0, 40), 1e-3);
    EXPECT_LT(largest_error<LeastSquares5<float>>(0, 40), 1e-3);
}

TEST(LineFit, OnlyARisingLineIsALine)
{
    const std::vector<int> cols { 2, 3, 5 };
    LeastSquares3<float> fit;
    const auto solves = [&](float a, float b, float c) {
        const float phase[] = { 0, 0, a, b, 0, c };
        return fit.check(1, cols) && fit.solve(1, phase, cols);
    };
    EXPECT_TRUE(solves(1.0F, 1.5F, 2.5F));
    EXPECT_DOUBLE_EQ(fit.slope, 0.5);
    EXPECT_DOUBLE_EQ(fit.intercept, 0.0);
    EXPECT_FALSE(solves(1.0F, 1.0F, 1.0F));
    EXPECT_FALSE(solves(3.0F, 2.0F, 1.0F));
    EXPECT_TRUE(solves(1.0F, std::numeric_limits<float>::quiet_NaN(), 2.0F)); // passes, and finds no column
    const std::vector<int> one_column { 2, 2, 2 };
    const float phase[] = { 0, 0, 1 };
    EXPECT_TRUE(fit.check(1, one_column));
    EXPECT_FALSE(fit.solve(1, phase, one_column));
}

TEST(LineFit, SquaresOfTheWidestColumnsDoNotOverflow)
{
    const std::vector<int> cols { 32761, 32762, 32763, 32764, 32765 };
    std::vector<float> phase(32766, 0.0F);
    for (const int x : cols)
        phase[static_cast<std::size_t>(x)] = static_cast<float>(x - 32760);
    LeastSquares5<float> fit;
    ASSERT_TRUE(fit.check(2, cols) && fit.solve(2, phase.data(), cols));
    EXPECT_NEAR(fit.slope, 1.0, 0.01); // Sxy is 5e5, a float: rounded by up to 0.08, over D / N = 10
}
