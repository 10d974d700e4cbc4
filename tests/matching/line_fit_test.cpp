#include "matching/LeastSquares.h"

#include <gtest/gtest.h>

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
