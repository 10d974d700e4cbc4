#include "base/pictures.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/picture_header.h"
#include "base/pictures/format.h"
#include "base/text.h"
#include "base/whole_file.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace vexo {

namespace {

using picture_file::Bytes;

/// The decoder for the first bytes of a file that may be decoded.
cv::Mat decoded(const std::string& bytes, PictureAs as)
{
    const Bytes file { reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size() };
    switch (bytes[0]) {
    case '\x89':
        return picture_file::decode_png(file, as);
    case '\xFF':
        return picture_file::decode_jpeg(file, as);
    case 'B':
        return picture_file::decode_bmp(file, as);
    case 'P':
        return picture_file::decode_pnm(file, as);
    default:
        return picture_file::decode_tiff(file, as);
    }
}

constexpr int jpeg_quality = 95;

} // namespace

cv::Mat decode_picture(const std::string& bytes, PictureAs as)
{
    return picture_file::may_be_decoded(bytes) ? decoded(bytes, as) : cv::Mat();
}

cv::Mat decode_picture(const std::vector<unsigned char>& bytes, PictureAs as)
{
    return decode_picture(std::string(bytes.begin(), bytes.end()), as);
}

namespace {

/// Throws Failure that names the path.
cv::Mat picture_of(const std::string& bytes, const std::string& path, PictureAs as)
{
    const cv::Size size = picture_file::announced_size(bytes);
    if (std::int64_t { size.width } * size.height > max_picture_area)
        throw Failure(path + ": is " + size_text(size.width, size.height) + " pixels; at most "
            + std::to_string(max_picture_area) + " pixels are read");
    cv::Mat picture = value_if_opencv_throws(cv::Mat(), [&] { return decode_picture(bytes, as); });
    if (picture.empty())
        throw Failure(path + ": is damaged, or no picture that can be read; PNG, TIFF, BMP, PNM and JPEG are");
    return picture;
}

} // namespace

cv::Mat read_picture(const std::string& path, PictureAs as)
{
    return picture_of(read_bytes(path, picture_file::max_bytes), path, as);
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
    return deep_grey_of(read_bytes(path, picture_file::max_bytes), path);
}

cv::Mat deep_grey_of(const std::string& bytes, const std::string& path)
{
    cv::Mat picture = picture_of(bytes, path, PictureAs::deep_grey);
    if (picture.depth() != CV_8U && picture.depth() != CV_16U)
        throw Failure(path + ": holds floating-point or signed numbers; save it with grey values of 8 or 16 bits");
    return picture;
}

std::vector<unsigned char> encoded_picture(const std::string& extension, const cv::Mat& picture, PngEffort effort)
{
    std::string format = extension;
    for (char& c : format)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto is = [&format](std::initializer_list<const char*> names) {
        return std::find(names.begin(), names.end(), format) != names.end();
    };
    if (picture.empty() || picture.dims != 2) return {};
    if (is({ ".png" })) return picture_file::encode_png(picture, effort);
    if (is({ ".jpg", ".jpeg", ".jpe" })) return picture_file::encode_jpeg(picture, jpeg_quality);
    if (is({ ".tiff", ".tif" })) return picture_file::encode_tiff(picture);
    if (is({ ".bmp", ".dib" })) return picture_file::encode_bmp(picture);
    const bool named
        = is({ ".pnm" }) || (is({ ".pgm" }) && picture.channels() == 1) || (is({ ".ppm" }) && picture.channels() == 3);
    return named ? picture_file::encode_pnm(picture) : std::vector<unsigned char>();
}

std::vector<unsigned char> encode(const std::string& extension, const cv::Mat& picture, PngEffort effort)
{
    std::vector<unsigned char> bytes = encoded_picture(extension, picture, effort);
    if (bytes.empty()) throw Failure("the picture cannot be encoded as " + extension);
    return bytes;
}

std::vector<unsigned char> encode_jpeg(const cv::Mat& picture, int quality)
{
    std::vector<unsigned char> bytes = picture_file::encode_jpeg(picture, quality);
    if (bytes.empty()) throw Failure("the picture cannot be encoded as JPEG");
    return bytes;
}

} // namespace vexo
