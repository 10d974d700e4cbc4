// Our decoders of pictures on arbitrary files: what they give has the pixels that OpenCV's give.

#include "base/pictures.h"
#include "base/odd_pictures.h"
#include "base/picture_header.h"
#include "target.h"

#include <opencv2/imgcodecs.hpp>

#include <cstring>

using namespace vexo;

namespace {

cv::Mat by_opencv(const std::string& bytes, int flags)
{
    try {
        return cv::imdecode(cv::Mat(1, static_cast<int>(bytes.size()), CV_8U, const_cast<char*>(bytes.data())), flags);
    } catch (const cv::Exception&) {
        return {};
    }
}

bool same_pixels(const cv::Mat& a, const cv::Mat& b)
{
    if (a.size() != b.size() || a.type() != b.type()) return false;
    for (int y = 0; y < a.rows; ++y)
        if (std::memcmp(a.ptr(y), b.ptr(y), static_cast<std::size_t>(a.cols) * a.elemSize()) != 0) return false;
    return true;
}

/// Where OpenCV reads otherwise: it turns each tile of a TIFF file by itself, guesses at damaged Exif data, ignores how
/// far a BMP's runs of 4 bits move down, and takes alone from damaged JPEG and TIFF files what it can.
bool may_differ(const std::string& bytes)
{
    const bool tiff = bytes[0] == 'I' || bytes[0] == 'M';
    const bool runs_of_4 = bytes.size() > 30 && bytes[0] == 'B' && bytes[30] == 2;
    return tiff || runs_of_4 || bytes.find("II*") != std::string::npos || bytes.find("MM") != std::string::npos;
}

} // namespace

std::string good_input()
{
    return odd::png(PNG_COLOR_TYPE_PALETTE, 4, PNG_INTERLACE_ADAM7, true);
}

bool fuzz_one(const std::string& bytes)
{
    constexpr int small = 1 << 20;
    if (!picture_file::may_be_decoded(bytes) || picture_file::announced_size(bytes).area() > small) return false;
    const std::pair<PictureAs, int> ways[]
        = { { PictureAs::grey, cv::IMREAD_GRAYSCALE }, { PictureAs::deep_grey, cv::IMREAD_ANYDEPTH },
              { PictureAs::colour, cv::IMREAD_COLOR }, { PictureAs::stored, cv::IMREAD_UNCHANGED } };
    bool any = false;
    for (const auto& [as, flags] : ways) {
        const cv::Mat ours = decode_picture(bytes, as);
        if (ours.empty() || may_differ(bytes)) continue;
        const cv::Mat twin = by_opencv(bytes, flags);
        must(twin.empty() || same_pixels(ours, twin), "the same pixels");
        any = any || !twin.empty();
    }
    return any;
}
