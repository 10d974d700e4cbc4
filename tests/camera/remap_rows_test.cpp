// The row kernel behind UndistortCamera::remap: the same bits as its plain twin, and on x86 as cv::remap. Elsewhere
// OpenCV rounds what is no number to 0 and fuses additions with multiplications.
#include "base/cpu.h"
#include "bench/plain_remap.h"
#include "camera/camera_undistort.h"
#include "camera/toed_in_pair.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cfloat>
#include <cmath>
#include <random>
#include <string>
#include <vector>

using vexo::Cpu;
using vexo::UndistortCamera;

namespace {

struct Tables {
    const char* name;
    cv::Mat map1, map2;
};

template <class F> Tables tables(const char* name, cv::Size size, F position)
{
    Tables t { name, cv::Mat(size, CV_32FC1), cv::Mat(size, CV_32FC1) };
    for (int r = 0; r < size.height; ++r)
        for (int c = 0; c < size.width; ++c) {
            const cv::Point2d p = position(c, r);
            t.map1.at<float>(r, c) = static_cast<float>(p.x);
            t.map2.at<float>(r, c) = static_cast<float>(p.y);
        }
    return t;
}

/// Rectifications, enlargements, reductions, mirrors, noise, and numbers that are no positions.
std::vector<Tables> many_tables(cv::Size size, cv::Size raw)
{
    static std::mt19937 rng(5);
    std::uniform_real_distribution<double> unit(-0.2, 1.2);
    const double wild[] = { NAN, INFINITY, -INFINITY, 1e30, -1e30, FLT_MAX, 6.7e7, -6.8e7, 32767, -32768, 65536, 0.5 };
    const auto turned = [&](double scale, double angle, int c, int r) {
        return cv::Point2d(scale * (c * std::cos(angle) - r * std::sin(angle)) + 0.3,
            scale * (c * std::sin(angle) + r * std::cos(angle)) - 0.4);
    };
    return { tables("identity", size, [](int c, int r) { return cv::Point2d(c, r); }),
        tables("turned", size, [&](int c, int r) { return turned(1.0, 0.03, c, r); }),
        tables("larger", size, [&](int c, int r) { return turned(0.4, -0.02, c, r); }),
        tables("smaller", size, [&](int c, int r) { return turned(1.3, 0.1, c, r); }),
        tables("much smaller", size, [&](int c, int r) { return turned(4.0, 0.5, c, r); }),
        tables("mirrored", size, [&](int c, int r) { return cv::Point2d(raw.width - 1.7 - c, r + 0.25); }),
        tables("scattered", size, [&](int, int) { return cv::Point2d(unit(rng) * raw.width, unit(rng) * raw.height); }),
        tables("half steps", size, [&](int c, int r) { return cv::Point2d(c + 1 / 64.0, r + 3 / 64.0); }),
        tables("wild", size,
            [&](int c, int r) { return cv::Point2d(rng() % 2 ? c : wild[rng() % 12], wild[rng() % 12] + 0 * r); }) };
}

/// An image in a buffer of its own that ends with the last pixel of the last row.
template <class T> struct Exact {
    std::vector<T> pixels;
    cv::Mat_<T> image;

    Exact(cv::Size size, int gap)
        : pixels(static_cast<std::size_t>(size.height * (size.width + gap) - gap))
        , image(size.height, size.width, pixels.data(), static_cast<std::size_t>(size.width + gap) * sizeof(T))
    {
    }
};

/// Bytes that are mostly 255, as in a mask; floats of any size, many of them 0.
template <class T> void fill_randomly(cv::Mat_<T>& image, std::mt19937& rng)
{
    std::uniform_real_distribution<float> value(-10.0F, 1e5F);
    for (T& pixel : image)
        if constexpr (sizeof(T) == 1)
            pixel = rng() % 3 == 0 ? static_cast<uchar>(rng()) : uchar { 255 };
        else
            pixel = rng() % 4 == 0 ? 0.0F : value(rng);
}

/// What the twin makes of an image; held to cv::remap where that gives the same.
template <class T> cv::Mat expected(const cv::Mat_<T>& src, const Tables& t, T fill)
{
    cv::Mat_<T> twin = plain::remap(src, t.map1, t.map2, fill), of_opencv(t.map1.size(), fill);
    cv::remap(src, of_opencv, t.map1, t.map2, cv::INTER_LINEAR, cv::BORDER_TRANSPARENT);
#if defined(__x86_64__)
    EXPECT_TRUE(same_bits(twin, of_opencv)) << t.name << ' ' << src.size();
#else
    const double rounding = 1e5 * 4 * FLT_EPSILON; // of four products of the largest grey
    EXPECT_TRUE(std::string(t.name) == "wild" || cv::norm(twin, of_opencv, cv::NORM_INF) <= rounding) << t.name;
#endif
    return twin;
}

UndistortCamera camera_with(const Tables& t)
{
    UndistortCamera cam(t.map1.size(), "u");
    cam.map1 = t.map1;
    cam.map2 = t.map2;
    return cam;
}

template <class T> void expect_equal(const cv::Mat_<T>& src, const Tables& t, T fill)
{
    cv::Mat got;
    ASSERT_TRUE(camera_with(t).remap(src, got, cv::Scalar::all(static_cast<double>(fill))));
    EXPECT_TRUE(same_bits(got, expected(src, t, fill))) << t.name << ' ' << src.size();
}

class RemapRows : public testing::TestWithParam<bool> {
protected:
    void SetUp() override { Cpu::allow_avx2(GetParam()); }
    void TearDown() override { Cpu::allow_avx2(true); }
};
INSTANTIATE_TEST_SUITE_P(PlainAndVector, RemapRows, testing::Bool());

} // namespace

TEST_P(RemapRows, EqualTheTwinBitForBit)
{
    std::mt19937 rng(4);
    for (const cv::Size raw : { cv::Size(1, 1), cv::Size(1, 40), cv::Size(40, 1), cv::Size(2, 2), cv::Size(9, 3),
             cv::Size(17, 16), cv::Size(33, 20), cv::Size(131, 67) })
        for (const cv::Size size : { raw, cv::Size(1, 7), cv::Size(70, 45) }) {
            Exact<uchar> bytes(raw, 3);
            Exact<float> floats(raw, 1);
            fill_randomly(bytes.image, rng);
            fill_randomly(floats.image, rng);
            for (const Tables& t : many_tables(size, raw)) {
                expect_equal<uchar>(bytes.image, t, 77);
                expect_equal<float>(floats.image, t, -2.5F);
            }
        }
}

TEST_P(RemapRows, OnePassOverMapMaskAndTextureIsThreePasses)
{
    std::mt19937 rng(6);
    const cv::Size raw(61, 37), size(67, 31);
    Exact<uchar> bytes(raw, 0), other(raw, 5);
    Exact<float> floats(raw, 0);
    fill_randomly(bytes.image, rng);
    fill_randomly(other.image, rng);
    fill_randomly(floats.image, rng);
    for (const Tables& t : many_tables(size, raw)) {
        const UndistortCamera cam = camera_with(t);
        ASSERT_TRUE(cam.has_row_form(raw));
        cv::Mat_<uchar> mask(size), texture(size);
        cv::Mat_<float> map(size);
        for (int r = 0; r < size.height; ++r)
            cam.remap_row(r, raw,
                { { bytes.image[0], bytes.image.step[0], mask[r], 0 },
                    { floats.image[0], floats.image.step[0], map[r], 0.0F },
                    { other.image[0], other.image.step[0], texture[r], 99 } });
        EXPECT_TRUE(same_bits(mask, expected<uchar>(bytes.image, t, 0))) << t.name;
        EXPECT_TRUE(same_bits(map, expected(floats.image, t, 0.0F))) << t.name;
        EXPECT_TRUE(same_bits(texture, expected<uchar>(other.image, t, 99))) << t.name;
    }
}

TEST_P(RemapRows, AMaskStays255OnlyWhereAtMostTwo1024thsAreInvalid)
{
    cv::Mat_<uchar> mask(2, 2, uchar { 255 });
    mask(1, 1) = 0;
    Tables t = tables("fractions", { 32, 32 }, [](int c, int r) { return cv::Point2d(c / 32.0, r / 32.0); });
    cv::Mat got;
    ASSERT_TRUE(camera_with(t).remap(mask, got, cv::Scalar::all(0)));
    for (int r = 0; r < 32; ++r)
        for (int c = 0; c < 32; ++c)
            EXPECT_EQ(got.at<uchar>(r, c) == 255, c * r <= 2) << c << ' ' << r;
}

TEST(RemapRowsFallBack, OtherTablesTypesAndMethodsGoThroughCvRemap)
{
    const cv::Size size(40, 30);
    Tables t = many_tables(size, size)[1];
    UndistortCamera cam = camera_with(t);
    cv::Mat colour(size, CV_8UC3), got;
    cv::randu(colour, 0, 255);
    ASSERT_TRUE(cam.remap(colour, got, cv::Scalar(1, 2, 3)));
    EXPECT_EQ(got.type(), CV_8UC3);
    cam.interpolation = 2;
    EXPECT_FALSE(cam.has_row_form(size));
    cam.interpolation = 1;
    cv::convertMaps(t.map1, t.map2, cam.map1, cam.map2, CV_16SC2);
    EXPECT_FALSE(cam.has_row_form(size));
    cv::Mat_<uchar> raw(size, uchar { 9 });
    ASSERT_TRUE(cam.remap(raw, got, cv::Scalar::all(77)));
    EXPECT_TRUE(same_bits(got, expected<uchar>(raw, t, 77)));
}
