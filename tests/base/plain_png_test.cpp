// The quick way for the usual PNG, and pictures as numbers of few colours.

#include "base/pictures.h"
#include "base/pictures/palette.h"
#include "base/pictures/plain_png.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <png.h>

#include <string>

using namespace vexo;

namespace {

cv::Mat by_plain_way(const std::string& file)
{
    return picture_file::decode_plain_png({ reinterpret_cast<const unsigned char*>(file.data()), file.size() });
}

/// A grey PNG by libpng whose rows all have one filter, or, with PNG_ALL_FILTERS, each its own.
std::string png(const cv::Mat& picture, int filters)
{
    std::string file;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    const auto add = [](png_structp p, png_bytep from, png_size_t size) {
        static_cast<std::string*>(png_get_io_ptr(p))->append(reinterpret_cast<char*>(from), size);
    };
    png_set_write_fn(png, &file, add, nullptr);
    png_set_IHDR(png, info, static_cast<png_uint_32>(picture.cols), static_cast<png_uint_32>(picture.rows),
        picture.depth() == CV_16U ? 16 : 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, 0, 0);
    png_set_filter(png, 0, filters);
    png_text said {};
    std::string key = "Title", text = "a scan";
    said.compression = PNG_TEXT_COMPRESSION_NONE;
    said.key = key.data();
    said.text = text.data();
    said.text_length = text.size();
    png_set_text(png, info, &said, 1);
    png_write_info(png, info);
    png_set_swap(png);
    for (int y = 0; y < picture.rows; ++y)
        png_write_row(png, picture.ptr(y));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return file;
}

cv::Mat noisy_slope(cv::Size size, int type)
{
    cv::Mat picture(size, type);
    cv::RNG(3).fill(picture, cv::RNG::UNIFORM, 0, type == CV_8U ? 40 : 9000);
    for (int y = 0; y < size.height; ++y)
        picture.row(y) += (type == CV_8U ? 5 : 900) * (y % 50);
    return picture;
}

bool same(const cv::Mat& a, const cv::Mat& b)
{
    return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

} // namespace

TEST(PlainPng, UndoesEachFilterAtEachWidthAndDepth)
{
    for (const int type : { CV_8U, CV_16U })
        for (const int filter :
            { PNG_FILTER_NONE, PNG_FILTER_SUB, PNG_FILTER_UP, PNG_FILTER_AVG, PNG_FILTER_PAETH, PNG_ALL_FILTERS })
            for (const cv::Size size : { cv::Size(1, 1), cv::Size(1, 9), cv::Size(7, 1), cv::Size(33, 70) }) {
                const cv::Mat picture = noisy_slope(size, type);
                EXPECT_TRUE(same(by_plain_way(png(picture, filter)), picture)) << type << ' ' << filter << ' ' << size;
            }
}

TEST(PlainPng, LeavesEveryDamagedAndEveryOtherFileToOthers)
{
    const std::string whole = png(noisy_slope({ 9, 6 }, CV_8U), PNG_ALL_FILTERS);
    ASSERT_FALSE(by_plain_way(whole).empty());
    for (std::size_t i = 0; i < whole.size(); ++i) {
        EXPECT_TRUE(by_plain_way(whole.substr(0, i)).empty()) << "of a file that ends at byte " << i;
        for (const char bit : { '\x01', '\x20', '\x80' }) { // 20: makes a name's letter a small one
            std::string damaged = whole;
            damaged[i] = static_cast<char>(damaged[i] ^ bit);
            EXPECT_TRUE(by_plain_way(damaged).empty()) << "byte " << i;
        }
    }
    const auto colours = encode(".png", cv::Mat(5, 5, CV_8UC3, cv::Scalar(1, 2, 3)));
    EXPECT_TRUE(picture_file::decode_plain_png({ colours.data(), colours.size() }).empty());
}

TEST(Palette, OfUpTo256ColoursIsSmallerAndDecodedToTheSamePicture)
{
    for (const int count : { 1, 2, 256, 257 }) {
        cv::Mat picture(40, 50, CV_8UC3);
        for (int i = 0; i < 2000; ++i) {
            const int colour = i * 7 % count;
            picture.at<cv::Vec3b>(i / 50, i % 50) = cv::Vec3b(static_cast<uchar>(colour),
                static_cast<uchar>(colour / 2 * 3), static_cast<uchar>(colour == 256 ? 9 : 255 - colour));
        }
        const auto numbers = encode(".png", picture, PngEffort::few_colours);
        EXPECT_TRUE(same(decode_picture(numbers, PictureAs::colour), picture)) << count;
        EXPECT_TRUE(same(cv::imdecode(numbers, cv::IMREAD_COLOR), picture)) << count;
        constexpr std::size_t place_of_kind = 25;
        EXPECT_EQ(numbers[place_of_kind] == PNG_COLOR_TYPE_PALETTE, count <= 256) << count;
        EXPECT_EQ(picture_file::indexed(picture).colours.size(), count <= 256 ? static_cast<std::size_t>(count) : 0U);
    }
}
