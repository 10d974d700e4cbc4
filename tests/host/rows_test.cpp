#include "host/measurement/rows.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>

namespace {

using namespace vexo;

/// A textured surface at a disparity of 12.5 px, seen by a right pair whose second picture was then moved by `rows` at
/// its left edge to `rows_right` at its right one.
class Rows : public testing::Test {
protected:
    static constexpr int width = 400, height = 300;

    void SetUp() override
    {
        cv::theRNG().state = 7;
        surface = cv::Mat(height, width + 40, CV_8U);
        cv::randu(surface, 0, 255);
        cv::GaussianBlur(surface, surface, {}, 3);
        cv::normalize(surface, surface, 60, 200, cv::NORM_MINMAX);
        left = surface.colRange(20, 20 + width).clone();
    }

    static cv::Mat noisy(const cv::Mat& picture, double sigma = 1.5)
    {
        cv::Mat noise(picture.size(), CV_32F), out;
        cv::randn(noise, 0, sigma);
        cv::add(picture, noise, out, {}, CV_8U);
        return out;
    }

    RowError test(double rows, double rows_right) const
    {
        cv::Mat map_x(height, width, CV_32F), map_y(height, width, CV_32F), right;
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                map_x.at<float>(y, x) = static_cast<float>(x + 20 + 12.5);
                map_y.at<float>(y, x) = static_cast<float>(y - rows - (rows_right - rows) * x / width);
            }
        cv::remap(surface, right, map_x, map_y, cv::INTER_CUBIC);
        return test_rows(noisy(left), noisy(right), cv::Mat(height, width, CV_32F, cv::Scalar(12.5)), 1.5);
    }

    cv::Mat surface, left;
};

// remap() rounds to 1/32 px, and the parabola's peak is drawn towards whole pixels by up to a twentieth.
TEST_F(Rows, ReadTheShiftThatCamera1HasAndItsRunOverThePicture)
{
    for (const double shift : { 0.0, 0.4, -2.3 }) {
        const RowError e = test(shift, shift);
        EXPECT_GT(e.found, 0.95) << shift;
        EXPECT_NEAR(e.median, shift, 0.08) << shift;
        EXPECT_LT(e.scatter, 0.1) << shift;
        EXPECT_EQ(judge_rows(e).weight, shift == 0.0 ? Weight::good : shift == 0.4 ? Weight::worse : Weight::spoils);
    }
    const RowError rolled = test(-3, 3);
    EXPECT_NEAR(rolled.a, -6 * 12.5 / width, 0.08); // camera 1 sees the middle 12.5 px further left
    EXPECT_NEAR(rolled.b, 6, 0.3);
    EXPECT_NEAR(rolled.c, 0, 0.1);
    EXPECT_EQ(judge_rows(rolled).weight, Weight::spoils);
    EXPECT_NE(judge_rows(rolled).text.find("rolled"), std::string::npos);
}

TEST_F(Rows, OfAnotherSurfaceAreNotFoundAndSpoil)
{
    const cv::Mat disparity(height, width, CV_32F, cv::Scalar(12.5));
    cv::Mat other;
    cv::rotate(left, other, cv::ROTATE_180);
    const RowError e = test_rows(left, other, disparity, 0);
    EXPECT_LT(e.found, 0.05);
    EXPECT_EQ(judge_rows(e).weight, Weight::spoils);
    EXPECT_NE(judge_rows(e).text.find("mixed capture"), std::string::npos);
    EXPECT_NE(judge_rows(e, true).text.find("exchanged"), std::string::npos);
}

TEST_F(Rows, OfAPlainWallOrOfNothingAreUnknownAndNeverGood)
{
    cv::Mat wall(height, width, CV_8U); // its light falls off from top to bottom
    for (int y = 0; y < height; ++y)
        wall.row(y).setTo(200 - y / 3);
    cv::Mat bent(height, width, CV_8U); // a ball's shading
    for (int y = 0; y < height; ++y)
        bent.row(y).setTo(128 + 60 * std::cos(2 * CV_PI * y / 80));
    const cv::Mat everywhere(height, width, CV_32F, cv::Scalar(12.5)), nowhere(height, width, CV_32F, std::nanf(""));
    for (const RowError& e : { test_rows(noisy(wall), noisy(wall), everywhere, 1.5),
             test_rows(noisy(wall, 11), noisy(wall, 11), everywhere, grey_noise(noisy(wall, 11))),
             test_rows(noisy(bent), noisy(bent), everywhere, 1.5), test_rows(left, left, nowhere, 0),
             test_rows(left.rowRange(0, 20), left.rowRange(0, 20), everywhere.rowRange(0, 20), 0) }) {
        EXPECT_FALSE(e.tested() || e.fits()) << e.textured;
        EXPECT_EQ(judge_rows(e).weight, Weight::unknown);
        EXPECT_NE(judge_rows(e).text.find("not tested: no texture"), std::string::npos);
    }
}

TEST_F(Rows, OfOutlinesThatLieElsewhereForEachCameraAreUnknown)
{
    cv::Mat one(height, width, CV_8U, cv::Scalar(150)), other = one.clone();
    cv::Mat disparity(height, width, CV_32F, cv::Scalar(0));
    for (int y = 20; y < height - 20; y += 37) {
        if (y / 37 % 2 == 0) disparity.rowRange(y, y + 37).setTo(8); // the outline of what is before the rest
        for (int x = 0; x < width; ++x) {                            // shadows of three rows, up to 5 px off
            one(cv::Rect(x, y, 1, 3)).setTo(115);
            disparity(cv::Rect(x, y, 1, 3)).setTo(std::nanf(""));
            other(cv::Rect(x, y + x / 40 % 11 - 5, 1, 3)).setTo(115);
        }
    }
    const RowError e = test_rows(noisy(one), noisy(other), disparity, 1.5);
    EXPECT_EQ(judge_rows(e).weight, Weight::unknown) << judge_rows(e).text;
    disparity.setTo(0); // a stripe of the surface, seen in other rows here than there
    const RowError bent = test_rows(noisy(one), noisy(other), disparity, 1.5);
    EXPECT_EQ(judge_rows(bent).weight, Weight::spoils) << judge_rows(bent).text;
}

} // namespace
