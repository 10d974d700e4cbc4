#include "base/picture_header.h"
#include "camera/image_file.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

using namespace vexo;

namespace {

std::string encoded(const std::string& extension, cv::Size size, int type = CV_8U)
{
    std::vector<uchar> bytes;
    cv::imencode(extension, cv::Mat(size, type, cv::Scalar::all(50)), bytes);
    return { bytes.begin(), bytes.end() };
}

std::string in_file(const std::string& bytes)
{
    static const Folder folder;
    put(folder / "picture", bytes);
    return folder / "picture";
}

std::string with(std::string bytes, std::size_t at, const std::string& patch)
{
    return bytes.replace(at, patch.size(), patch);
}

} // namespace

TEST(ImageFile, HeadersAnnounceTheSizeAndTheImageIsGrey)
{
    for (const char* extension : { ".png", ".jpg", ".bmp", ".pgm", ".tiff" })
        for (const int type : { CV_8U, CV_8UC3 }) {
            const std::string name = std::string(extension) == ".pgm" && type == CV_8UC3 ? ".ppm" : extension;
            const std::string bytes = encoded(name, { 33, 7 }, type);
            EXPECT_EQ(picture_file::announced_size(bytes), cv::Size(33, 7)) << name;
            const cv::Mat image = read_grey_image(in_file(bytes));
            ASSERT_EQ(image.size(), cv::Size(33, 7)) << name;
            EXPECT_EQ(image.type(), CV_8UC1);
            EXPECT_EQ(image.at<uchar>(3, 3), 50);
        }
    EXPECT_EQ(picture_file::announced_size("P5 # a comment with 9 9\n 12\t34 255\n"), cv::Size(12, 34));
    // Forms that OpenCV does not write: JPEG with fill bytes and markers without a length, BMP's 16-bit core header and
    // rows from the top, big-endian TIFF with long sides.
    const auto bytes = [](std::initializer_list<int> list) { return std::string(list.begin(), list.end()); };
    const std::string frame = bytes({ 0xFF, 0xC2, 0, 17, 8, 0, 7, 0, 33, 0 });
    for (const auto& before : { bytes({ 0xFF, 0xFF, 0x01 }), bytes({ 0xFF, 0xD7 }), bytes({ 0xFF, 0xC4, 0, 3, 9 }),
             bytes({ 0xFF, 0xC8, 0, 2, 0xFF, 0xCC, 0, 2 }) })
        EXPECT_EQ(picture_file::announced_size("\xFF\xD8" + before + frame), cv::Size(33, 7));
    EXPECT_EQ(picture_file::announced_size("\xFF\xD8" + frame.substr(1)), cv::Size());
    EXPECT_EQ(picture_file::announced_size("BM" + std::string(12, 'x') + bytes({ 12, 0, 0, 0, 33, 0, 7, 0 })),
        cv::Size(33, 7));
    const std::string top_down = bytes({ 40, 0, 0, 0, 33, 0, 0, 0, 0xF9, 0xFF, 0xFF, 0xFF });
    EXPECT_EQ(picture_file::announced_size("BM" + std::string(12, 'x') + top_down), cv::Size(33, 7));
    const std::string tiff = bytes(
        { 'M', 'M', 0, 42, 0, 0, 0, 8, 0, 2, 1, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 33, 1, 1, 0, 4, 0, 0, 0, 1, 0, 0, 0, 7 });
    EXPECT_EQ(picture_file::announced_size(tiff), cv::Size(33, 7));
    EXPECT_EQ(picture_file::announced_size("P7\nWIDTH 33\n"), cv::Size());
    EXPECT_EQ(picture_file::announced_size("no image"), cv::Size());
    EXPECT_EQ(picture_file::announced_size(""), cv::Size());
}

TEST(ImageFile, APictureOfGigabytesInAFewBytesIsRefused)
{
    const std::string png = with(encoded(".png", { 8, 8 }), 16, std::string("\0\0\x75\x30\0\0\x75\x30", 8));
    const std::string bmp = with(encoded(".bmp", { 8, 8 }), 18, std::string("\x30\x75\0\0\x30\x75\0\0", 8));
    for (const std::string& bytes : { png, bmp, std::string("P5\n30000 30000\n255\n") }) {
        EXPECT_EQ(picture_file::announced_size(bytes), cv::Size(30000, 30000));
        EXPECT_TRUE(read_grey_image(in_file(bytes)).empty());
    }
    EXPECT_TRUE(read_grey_image(in_file("P5\n99999999999999999999 1\n255\n")).empty());
    // One that takes hours: a progressive JPEG of many scans without data.
    const std::string jpeg = encoded(".jpg", { 8, 8 }), scan("\xFF\xDA\0\x08\1\1\0\0\x3F\0", 10);
    for (const int scans : { 99, 100 }) {
        std::string bytes = jpeg;
        for (int i = 0; i < scans; ++i)
            bytes.insert(jpeg.find("\xFF\xDA"), scan);
        EXPECT_EQ(picture_file::may_be_decoded(bytes), scans == 99);
    }
}

TEST(ImageFile, WhatIsNoImageFileGivesAnEmptyMat)
{
    EXPECT_TRUE(read_grey_image("/nonexistent.png").empty());
    EXPECT_TRUE(read_grey_image(in_file("text")).empty());
    EXPECT_TRUE(read_grey_image(in_file(encoded(".webp", { 9, 5 }))).empty()) << "a format whose size is not known";
    for (const char* extension : { ".png", ".jpg", ".bmp", ".pgm", ".tiff" }) {
        const std::string whole = encoded(extension, { 9, 5 });
        for (std::size_t n = 0; n < whole.size(); n += 1 + whole.size() / 40)
            picture_file::announced_size(whole.substr(0, n)); // the sanitizer watches
    }
}
