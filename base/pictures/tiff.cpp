#include "base/pictures/tiff_file.h"

#include "base/index.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace vexo {
namespace picture_file {

namespace {

/// What the first directory of a TIFF file says.
struct Layout {
    std::uint32_t width = 0, height = 0;
    std::uint16_t bits = 1, samples = 1, format = SAMPLEFORMAT_UINT, photometric = PHOTOMETRIC_MINISBLACK;
    std::uint16_t planes = PLANARCONFIG_CONTIG, compression = COMPRESSION_NONE, orientation = ORIENTATION_TOPLEFT;
    bool tiled = false;
    std::uint32_t block_width = 0, block_height = 0; ///< of a tile, or of a strip

    bool packed() const { return bits == 10 || bits == 12 || bits == 14; }
    bool grey() const { return photometric == PHOTOMETRIC_MINISBLACK || photometric == PHOTOMETRIC_MINISWHITE; }
};

bool is_read(std::uint16_t compression)
{
    constexpr std::uint16_t read[] = { COMPRESSION_NONE, COMPRESSION_CCITTRLE, COMPRESSION_CCITTFAX3,
        COMPRESSION_CCITTFAX4, COMPRESSION_LZW, COMPRESSION_JPEG, COMPRESSION_ADOBE_DEFLATE, COMPRESSION_DEFLATE,
        COMPRESSION_PACKBITS, COMPRESSION_ZSTD };
    return std::find(std::begin(read), std::end(read), compression) != std::end(read);
}

/// @return whether the file has what it must have, and a block is not larger than a picture may be
bool read_layout(TIFF* tiff, Layout& l)
{
    if (TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &l.width) == 0 || TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &l.height) == 0
        || TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &l.photometric) == 0)
        return false;
    TIFFGetFieldDefaulted(tiff, TIFFTAG_BITSPERSAMPLE, &l.bits);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLESPERPIXEL, &l.samples);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_SAMPLEFORMAT, &l.format);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_PLANARCONFIG, &l.planes);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_COMPRESSION, &l.compression);
    TIFFGetFieldDefaulted(tiff, TIFFTAG_ORIENTATION, &l.orientation);
    l.tiled = TIFFIsTiled(tiff) != 0;
    l.block_width = l.width;
    if (l.tiled) {
        if (TIFFGetField(tiff, TIFFTAG_TILEWIDTH, &l.block_width) == 0) return false;
        if (TIFFGetField(tiff, TIFFTAG_TILELENGTH, &l.block_height) == 0) return false;
    } else {
        TIFFGetFieldDefaulted(tiff, TIFFTAG_ROWSPERSTRIP, &l.block_height);
        l.block_height = std::min(l.block_height, l.height); // a picture of one strip may say any number
    }
    const bool counted = l.format == SAMPLEFORMAT_UINT || l.format == SAMPLEFORMAT_INT;
    if (!counted && (l.format != SAMPLEFORMAT_IEEEFP || l.bits < 32)) return false;
    if (l.photometric == PHOTOMETRIC_RGB && l.samples < 3) return false;
    return is_read(l.compression) && l.samples >= 1 && l.samples <= 4
        && !room_for(l.block_width, l.block_height, CV_8U).empty();
}

/// The number in which a pixel of the file is decoded; -1 for a kind that is not read.
int type_of(const Layout& l)
{
    const int channels = l.grey() ? 1 : l.samples == 4 ? 4 : 3;
    if (l.packed()) return l.samples == 1 && l.format == SAMPLEFORMAT_UINT ? CV_16UC1 : -1;
    switch (l.bits) {
    case 1:
        return CV_MAKETYPE(CV_8U, l.samples < 3 ? 1 : channels);
    case 4:
        return l.photometric == PHOTOMETRIC_PALETTE ? CV_8UC3 : -1;
    case 8:
        return CV_MAKETYPE(l.format == SAMPLEFORMAT_INT ? CV_8S : CV_8U, channels);
    case 16:
        if (l.photometric > PHOTOMETRIC_RGB || l.samples == 2) return CV_MAKETYPE(CV_8U, channels);
        return CV_MAKETYPE(l.format == SAMPLEFORMAT_INT ? CV_16S : CV_16U, channels);
    case 32:
        return CV_MAKETYPE(l.format == SAMPLEFORMAT_IEEEFP ? CV_32F : CV_32S, l.samples);
    case 64:
        return l.format == SAMPLEFORMAT_IEEEFP ? CV_MAKETYPE(CV_64F, l.samples) : -1;
    default:
        return -1;
    }
}

/// The part of a block that lies in the picture, block after block; `read` puts each there. False where one cannot be.
template <class Read> bool each_block(const Layout& l, cv::Mat& picture, Read read)
{
    const cv::Rect whole(0, 0, picture.cols, picture.rows);
    const int width = static_cast<int>(l.block_width), height = static_cast<int>(l.block_height);
    for (int y = 0; y < picture.rows; y += height)
        for (int x = 0; x < picture.cols; x += width)
            if (!read(x, y, picture(cv::Rect(x, y, width, height) & whole))) return false;
    return true;
}

/// Blue first, or grey, of samples that lie red first.
template <class T> void put_samples(const T* samples, int channels, cv::Mat row)
{
    T* to = row.ptr<T>();
    for (int x = 0; x < row.cols; ++x, samples += channels) {
        if (row.channels() == channels) {
            std::copy_n(samples, channels, to + x * channels);
            if (channels >= 3) std::swap(to[x * channels], to[x * channels + 2]);
            continue;
        }
        const T red = samples[0], green = samples[channels >= 3 ? 1 : 0], blue = samples[channels >= 3 ? 2 : 0];
        if (row.channels() == 3) {
            to[3 * x] = blue;
            to[3 * x + 1] = green;
            to[3 * x + 2] = red;
        } else {
            to[x] = channels < 3 ? red : static_cast<T>(grey_of(int(blue), int(green), int(red)));
        }
    }
}

/// Samples of 10 to 14 bits, the highest bit first, become the high bits of 16.
void unpack_row(const unsigned char* samples, int bits, cv::Mat row)
{
    std::uint32_t pending = 0;
    int count = 0;
    for (int x = 0; x < row.cols; ++x) {
        for (; count < bits; count += 8)
            pending = (pending << 8) | *samples++;
        count -= bits;
        row.at<std::uint16_t>(0, x) = static_cast<std::uint16_t>((pending >> count) << (16 - bits));
    }
}

void put_row(const unsigned char* samples, const Layout& l, cv::Mat row)
{
    if (l.packed())
        unpack_row(samples, l.bits, row);
    else if (l.samples == 1 && row.channels() == 1)
        std::memcpy(row.data, samples, row.total() * row.elemSize());
    else if (l.bits == 8)
        put_samples(samples, l.samples, row);
    else if (l.bits == 16)
        put_samples(reinterpret_cast<const std::uint16_t*>(samples), l.samples, row);
    else if (l.bits == 32)
        put_samples(reinterpret_cast<const float*>(samples), l.samples, row);
    else
        put_samples(reinterpret_cast<const double*>(samples), l.samples, row);
}

/// Samples as the file has them, all of a pixel side by side.
bool read_samples(TIFF* tiff, const Layout& l, cv::Mat& picture)
{
    const std::size_t row_bytes = (std::size_t { l.block_width } * l.samples * l.bits + 7) / 8;
    std::vector<std::uint64_t> block(row_bytes * l.block_height / sizeof(std::uint64_t) + 1); // aligned for any sample
    auto* bytes = reinterpret_cast<unsigned char*>(block.data());
    return each_block(l, picture, [&](int x, int y, cv::Mat part) {
        const std::size_t wanted = row_bytes * (l.tiled ? l.block_height : static_cast<std::uint32_t>(part.rows));
        const auto size = static_cast<tmsize_t>(wanted);
        const auto at_x = static_cast<std::uint32_t>(x), at_y = static_cast<std::uint32_t>(y);
        const tmsize_t got = l.tiled ? TIFFReadEncodedTile(tiff, TIFFComputeTile(tiff, at_x, at_y, 0, 0), bytes, size)
                                     : TIFFReadEncodedStrip(tiff, TIFFComputeStrip(tiff, at_y, 0), bytes, size);
        if (got != size) return false;
        for (int i = 0; i < part.rows; ++i)
            put_row(bytes + static_cast<std::size_t>(i) * row_bytes, l, part.row(i));
        return true;
    });
}

/// One row of libtiff's pixels: red in the lowest byte, then green, blue and alpha.
void put_rgba(const std::uint32_t* rgba, cv::Mat row)
{
    for (int x = 0; x < row.cols; ++x) {
        const std::uint32_t p = rgba[x];
        const cv::Vec4b bgra(static_cast<uchar>(TIFFGetB(p)), static_cast<uchar>(TIFFGetG(p)),
            static_cast<uchar>(TIFFGetR(p)), static_cast<uchar>(TIFFGetA(p)));
        if (row.channels() == 1)
            row.at<uchar>(0, x) = static_cast<uchar>(grey_of(bgra[0], bgra[1], bgra[2]));
        else if (row.channels() == 3)
            row.at<cv::Vec3b>(0, x) = { bgra[0], bgra[1], bgra[2] };
        else
            row.at<cv::Vec4b>(0, x) = bgra;
    }
}

/// Any kind of pixel as libtiff makes red, green, blue and alpha of 8 bits of it.
bool read_rgba(TIFF* tiff, const Layout& l, cv::Mat& picture)
{
    constexpr int stop_on_error = 1;
    std::vector<std::uint32_t> block(std::size_t { l.block_width } * l.block_height);
    return each_block(l, picture, [&](int x, int y, cv::Mat part) {
        const auto at_x = static_cast<std::uint32_t>(x), at_y = static_cast<std::uint32_t>(y);
        const int good = l.tiled ? TIFFReadRGBATileExt(tiff, at_x, at_y, block.data(), stop_on_error)
                                 : TIFFReadRGBAStripExt(tiff, at_y, block.data(), stop_on_error);
        const int rows = l.tiled ? static_cast<int>(l.block_height) : part.rows; // the lowest comes first
        for (int i = 0; good != 0 && i < part.rows; ++i)
            put_rgba(&block[static_cast<std::size_t>(rows - 1 - i) * l.block_width], part.row(i));
        return good != 0;
    });
}

/// Whether the samples are the pixels: nothing has to be looked up or inverted.
bool samples_are_pixels(const Layout& l, int type)
{
    const bool plain = l.photometric == PHOTOMETRIC_MINISBLACK || l.photometric == PHOTOMETRIC_RGB;
    const bool side_by_side = l.planes == PLANARCONFIG_CONTIG || l.samples == 1;
    const bool mixed = CV_MAT_CN(type) != l.samples; // grey of colours
    if (!plain || !side_by_side || l.bits < 8) return false;
    if (mixed && (l.bits > 16 || l.format != SAMPLEFORMAT_UINT)) return false;
    if (l.packed()) return type == CV_16UC1;
    return l.bits == 8 ? l.samples == 1 && CV_MAT_CN(type) == 1 : CV_ELEM_SIZE1(type) * 8 == l.bits;
}

bool set_tags(TIFF* tiff, const cv::Mat& picture)
{
    constexpr std::size_t strip_bytes = 1 << 13;
    const bool real = picture.depth() == CV_32F || picture.depth() == CV_64F;
    const std::size_t row_bytes = static_cast<std::size_t>(picture.cols) * picture.elemSize();
    const std::size_t strip = std::min(std::max(strip_bytes / row_bytes, std::size_t { 1 }), at(picture.rows));
    const std::pair<std::uint32_t, int> tags[] = { { TIFFTAG_IMAGEWIDTH, picture.cols },
        { TIFFTAG_IMAGELENGTH, picture.rows }, { TIFFTAG_BITSPERSAMPLE, static_cast<int>(picture.elemSize1() * 8) },
        { TIFFTAG_COMPRESSION, real ? COMPRESSION_NONE : COMPRESSION_LZW },
        { TIFFTAG_PHOTOMETRIC, picture.channels() == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB },
        { TIFFTAG_SAMPLESPERPIXEL, picture.channels() }, { TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG },
        { TIFFTAG_ROWSPERSTRIP, static_cast<int>(strip) },
        { TIFFTAG_SAMPLEFORMAT, real ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT } };
    for (const auto& [tag, value] : tags)
        if (TIFFSetField(tiff, tag, value) != 1) return false;
    return real || TIFFSetField(tiff, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL) == 1;
}

bool encode_rows(TIFF* tiff, const cv::Mat& picture)
{
    Layout l;
    l.bits = static_cast<std::uint16_t>(picture.elemSize1() * 8);
    l.samples = static_cast<std::uint16_t>(picture.channels());
    cv::Mat row(1, picture.cols, picture.type()); // libtiff changes what it is given
    for (int y = 0; y < picture.rows; ++y) {
        put_row(picture.ptr(y), l, row);
        if (TIFFWriteScanline(tiff, row.data, static_cast<std::uint32_t>(y), 0) != 1) return false;
    }
    return TIFFWriteDirectory(tiff) == 1;
}

} // namespace

cv::Mat decode_tiff(Bytes bytes, PictureAs as)
{
    const TiffFile file(bytes);
    Layout l;
    if (file.handle() == nullptr || !read_layout(file.handle(), l) || type_of(l) < 0) return {};
    const int type = type_as(type_of(l), as);
    cv::Mat picture = room_for(l.width, l.height, type);
    if (picture.empty()) return {};
    TIFFSetField(file.handle(), TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT); // else libtiff turns each strip by itself
    const bool good = samples_are_pixels(l, type) ? read_samples(file.handle(), l, picture)
                                                  : CV_MAT_DEPTH(type) == CV_8U && read_rgba(file.handle(), l, picture);
    if (!good || file.failed()) return {};
    turn_upright(picture, l.orientation);
    return picture;
}

std::vector<unsigned char> encode_tiff(const cv::Mat& picture)
{
    const int depth = picture.depth(), channels = picture.channels();
    if (depth == CV_8S || depth == CV_16S || depth == CV_32S || depth == CV_16F) return {};
    if (channels != 1 && (channels != 3 || depth > CV_16U)) return {};
    TiffFile file;
    if (file.handle() == nullptr || !set_tags(file.handle(), picture) || !encode_rows(file.handle(), picture))
        return {};
    file.close();
    if (file.failed()) return {};
    return std::move(file.made);
}

} // namespace picture_file
} // namespace vexo
