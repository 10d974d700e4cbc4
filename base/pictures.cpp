#include "base/pictures.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/picture_header.h"
#include "base/text.h"
#include "base/whole_file.h"

#include <opencv2/imgcodecs.hpp>

#include <cstdint>

namespace vexo {

cv::Mat read_picture(const std::string& path, int flags)
{
    const std::string bytes = read_bytes(path, picture_file::max_bytes);
    const cv::Size size = picture_file::announced_size(bytes);
    if (std::int64_t { size.width } * size.height > max_picture_area)
        throw Failure(path + ": is " + size_text(size.width, size.height) + " pixels; at most "
            + std::to_string(max_picture_area) + " pixels are read");
    const cv::Mat raw(1, static_cast<int>(bytes.size()), CV_8U, const_cast<char*>(bytes.data()));
    const cv::Mat picture = value_if_opencv_throws(
        cv::Mat(), [&] { return picture_file::may_be_decoded(bytes) ? cv::imdecode(raw, flags) : cv::Mat(); });
    if (picture.empty())
        throw Failure(path + ": is damaged, or no picture that can be read; PNG, TIFF, BMP, PNM and JPEG are");
    return picture;
}

cv::Mat read_grey(const std::string& path)
{
    constexpr double of_16_bits = 255.0 / 65535.0;
    cv::Mat picture = read_deep_grey(path);
    if (picture.depth() == CV_16U) picture.convertTo(picture, CV_8U, of_16_bits);
    return picture;
}

cv::Mat read_deep_grey(const std::string& path)
{
    const cv::Mat picture = read_picture(path, cv::IMREAD_ANYDEPTH);
    if (picture.depth() != CV_8U && picture.depth() != CV_16U)
        throw Failure(path + ": holds floating-point or signed numbers; save it with grey values of 8 or 16 bits");
    return picture;
}

std::vector<unsigned char> encode(const std::string& extension, const cv::Mat& picture)
{
    std::vector<unsigned char> bytes;
    if (!cv::imencode(extension, picture, bytes)) throw Failure("the picture cannot be encoded as " + extension);
    return bytes;
}

std::vector<unsigned char> encode_jpeg(const cv::Mat& picture, int quality)
{
    std::vector<unsigned char> bytes;
    if (!cv::imencode(".jpg", picture, bytes, { cv::IMWRITE_JPEG_QUALITY, quality }))
        throw Failure("the picture cannot be encoded as JPEG");
    return bytes;
}

} // namespace vexo
