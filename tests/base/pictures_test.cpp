// Our decoders and encoders against OpenCV's, which are the twins.

#include "base/odd_pictures.h"
#include "base/pictures.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cstring>

using namespace vexo;

namespace {

constexpr PictureAs all_ways[] = { PictureAs::grey, PictureAs::deep_grey, PictureAs::colour, PictureAs::stored };
constexpr int flags[] = { cv::IMREAD_GRAYSCALE, cv::IMREAD_ANYDEPTH, cv::IMREAD_COLOR, cv::IMREAD_UNCHANGED };

cv::Mat by_opencv(const std::string& bytes, PictureAs as)
{
    const std::vector<uchar> buffer(bytes.begin(), bytes.end());
    return cv::imdecode(buffer, flags[static_cast<int>(as)]);
}

bool same_pixels(const cv::Mat& a, const cv::Mat& b)
{
    if (a.size() != b.size() || a.type() != b.type()) return false;
    for (int y = 0; y < a.rows; ++y)
        if (std::memcmp(a.ptr(y), b.ptr(y), static_cast<std::size_t>(a.cols) * a.elemSize()) != 0) return false;
    return true;
}

cv::Mat smooth_noise(cv::Size size, int type)
{
    cv::Mat picture(size, type);
    cv::RNG(7).fill(picture, cv::RNG::UNIFORM, 0, CV_MAT_DEPTH(type) == CV_8U ? 256 : 60000);
    cv::GaussianBlur(picture, picture, { 5, 5 }, 0);
    return picture;
}

} // namespace

TEST(Pictures, EveryKindHasThePixelsThatOpenCVGivesIt)
{
    int compared = 0;
    for (const auto& [what, bytes] : odd::all_files())
        for (const PictureAs as : all_ways) {
            const cv::Mat ours = decode_picture(bytes, as), twin = by_opencv(bytes, as);
            if (twin.empty()) continue; // palettes of 4 bits, colours of 64: OpenCV has no such pictures, we may
            EXPECT_TRUE(same_pixels(ours, twin)) << what << ", way " << static_cast<int>(as);
            ++compared;
        }
    EXPECT_GT(compared, 2000) << "hardly any of these files are read";
}

TEST(Pictures, OfAFileThatEndsTooEarlyNoPartIsGivenAndNothingIsPrinted)
{
    testing::internal::CaptureStderr();
    for (const std::string& whole :
        { odd::png(2, 8, 0, false), odd::png(0, 16, 1, false), odd::jpeg(JCS_RGB, 3, [](auto&) {}),
            odd::jpeg(JCS_RGB, 3, [](auto& j) { jpeg_simple_progression(&j); }), odd::tiff({ 8, 3, PHOTOMETRIC_RGB }),
            odd::tiff({ 16, 1 }), odd::bmp(24, 0, false), odd::pnm(2, 255), odd::pnm(5, 255), odd::pnm(6, 4095) }) {
        const cv::Mat picture = decode_picture(whole, PictureAs::stored);
        for (std::size_t n = 0; n < whole.size(); n += 1 + n / 100) {
            const cv::Mat part = decode_picture(whole.substr(0, n), PictureAs::stored);
            EXPECT_TRUE(part.empty() || same_pixels(part, picture)) << whole.substr(0, 4) << " of " << n << " bytes";
        }
        std::string spoilt = whole;
        for (std::size_t at = 0; at < whole.size(); at += 7, spoilt = whole) {
            spoilt[at] = static_cast<char>(~spoilt[at]);
            decode_picture(spoilt, PictureAs::colour); // the sanitizer watches
        }
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Pictures, KindsThatAreNotReadAsTheyAreAreRefused)
{
    odd::Tiff planes { 16, 3, PHOTOMETRIC_RGB };
    planes.planes = PLANARCONFIG_SEPARATE;
    for (const odd::Tiff& kind : { odd::Tiff { 16, 1, PHOTOMETRIC_MINISWHITE }, odd::Tiff { 24, 1 }, planes,
             odd::Tiff { 16, 3, PHOTOMETRIC_RGB, SAMPLEFORMAT_INT } })
        EXPECT_TRUE(decode_picture(odd::tiff(kind), PictureAs::deep_grey).empty()) << kind.bits;
    std::string masks = odd::bmp(32, 3, false);
    masks[54] = 1;
    EXPECT_TRUE(decode_picture(masks, PictureAs::colour).empty());
    EXPECT_TRUE(encoded_picture(".png", cv::Mat(3, 3, CV_32F)).empty());
    EXPECT_TRUE(encoded_picture(".pgm", cv::Mat(3, 3, CV_8UC3)).empty());
    EXPECT_TRUE(encoded_picture(".webp", cv::Mat(3, 3, CV_8U)).empty());
    EXPECT_TRUE(encoded_picture(".png", cv::Mat()).empty());
}

TEST(Pictures, EncodersWriteTheBytesThatOpenCVWrites)
{
    const std::vector<int> level_1 { cv::IMWRITE_PNG_COMPRESSION, 1 }, quality_80 { cv::IMWRITE_JPEG_QUALITY, 80 };
    for (const auto& [extension, types] : std::vector<std::pair<std::string, std::vector<int>>> {
             { ".png", { CV_8UC1, CV_8UC3, CV_8UC4, CV_16UC1, CV_16UC3 } }, { ".jpg", { CV_8UC1, CV_8UC3, CV_8UC4 } },
             { ".tiff", { CV_8UC1, CV_8UC3, CV_16UC1, CV_16UC3, CV_32FC1, CV_64FC1 } },
             { ".pgm", { CV_8UC1, CV_16UC1 } }, { ".ppm", { CV_8UC3, CV_16UC3 } }, { ".bmp", { CV_8UC1, CV_8UC3 } } })
        for (const int type : types)
            for (const cv::Size size : { cv::Size(1, 1), cv::Size(37, 23), cv::Size(9000, 3) }) {
                const cv::Mat picture = smooth_noise(size, type);
                std::vector<uchar> twin;
                cv::imencode(extension, picture, twin);
                EXPECT_EQ(encode(extension, picture), twin) << extension << " of type " << type << ", " << size;
                if (extension == ".png") {
                    cv::imencode(extension, picture, twin, level_1);
                    EXPECT_EQ(encode(extension, picture, PngEffort::all_filters), twin) << type;
                }
                if (extension != ".jpg") continue;
                cv::imencode(extension, picture, twin, quality_80);
                EXPECT_EQ(encode_jpeg(picture, 80), twin) << type;
            }
}
