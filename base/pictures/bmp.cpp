#include "base/index.h"
#include "base/pictures/format.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace vexo {
namespace picture_file {

namespace {

enum class Packing : std::uint32_t { none, runs_of_8_bits, runs_of_4_bits, masks };

/// A BMP file: its header, and bytes that are taken one after the other.
struct Bmp {
    Bytes file;
    std::size_t at = 0;
    std::int32_t width = 0, height = 0; ///< a negative height: rows from the top
    int bits = 0;                       ///< of a pixel; 15 for 5 of each colour
    Packing packing = Packing::none;
    std::array<cv::Vec3b, 256> palette {};
    bool coloured = true, opaque = false;

    bool has(std::size_t bytes) const { return at <= file.size && file.size - at >= bytes; }
    int byte() { return file.first[at++]; }
    std::uint32_t number(std::size_t offset, int bytes) const
    {
        std::uint32_t value = 0;
        for (int i = bytes - 1; i >= 0; --i)
            value = (value << 8) | file.first[offset + static_cast<std::size_t>(i)];
        return value;
    }
    int row(int y) const { return height < 0 ? y : height - 1 - y; } ///< of the picture, the y-th of the file
    int rows() const { return height < 0 ? -height : height; }
    int type() const { return coloured ? (bits == 32 && packing == Packing::masks ? CV_8UC4 : CV_8UC3) : CV_8UC1; }
};

bool read_palette(Bmp& bmp, std::size_t entries, std::size_t entry_bytes)
{
    if (entries > bmp.palette.size() || !bmp.has(entries * entry_bytes)) return false;
    for (std::size_t i = 0; i < entries; ++i, bmp.at += entry_bytes)
        bmp.palette[i] = { bmp.file.first[bmp.at], bmp.file.first[bmp.at + 1], bmp.file.first[bmp.at + 2] };
    bmp.coloured = std::any_of(bmp.palette.begin(), bmp.palette.begin() + (std::ptrdiff_t { 1 } << bmp.bits),
        [](const cv::Vec3b& c) { return c[0] != c[1] || c[0] != c[2]; });
    return true;
}

/// 16 bits are 5 of each colour, or 6 of green; 32 bits lie as blue, green, red, alpha.
bool read_masks(Bmp& bmp, std::size_t header_bytes)
{
    constexpr std::size_t header_with_alpha = 56;
    constexpr std::uint32_t highest_byte = 0xFF000000;
    if (!bmp.has(16)) return false;
    const std::uint32_t red = bmp.number(bmp.at, 4), green = bmp.number(bmp.at + 4, 4);
    const std::uint32_t blue = bmp.number(bmp.at + 8, 4);
    if (bmp.bits == 32) {
        const std::uint32_t alpha = header_bytes < header_with_alpha ? highest_byte : bmp.number(bmp.at + 12, 4);
        bmp.opaque = alpha == 0;
        return red == 0xFF0000 && green == 0xFF00 && blue == 0xFF && (bmp.opaque || alpha == highest_byte);
    }
    if (red == 0x7C00 && green == 0x3E0 && blue == 0x1F) bmp.bits = 15;
    return bmp.bits == 15 || (red == 0xF800 && green == 0x7E0 && blue == 0x1F);
}

bool packing_fits(const Bmp& bmp)
{
    switch (bmp.packing) {
    case Packing::none:
        return bmp.bits == 1 || bmp.bits == 4 || bmp.bits == 8 || bmp.bits == 15 || bmp.bits == 24 || bmp.bits == 32;
    case Packing::runs_of_8_bits:
        return bmp.bits == 8;
    case Packing::runs_of_4_bits:
        return bmp.bits == 4;
    case Packing::masks:
        return bmp.bits == 16 || bmp.bits == 32;
    }
    return false;
}

/// The header that Windows writes, of 40 bytes or more.
bool read_info(Bmp& bmp, std::size_t header_bytes)
{
    constexpr std::size_t info = 14, palette = 40;
    if (header_bytes < palette || header_bytes > bmp.file.size || bmp.file.size < info + palette) return false;
    bmp.width = static_cast<std::int32_t>(bmp.number(18, 4));
    bmp.height = static_cast<std::int32_t>(bmp.number(22, 4));
    bmp.bits = static_cast<int>(bmp.number(28, 2));
    bmp.packing = static_cast<Packing>(bmp.number(30, 4));
    if (bmp.bits == 16 && bmp.packing == Packing::none) bmp.bits = 15;
    if (!packing_fits(bmp) || bmp.height == INT32_MIN) return false;
    bmp.at = info + (bmp.packing == Packing::masks ? palette : header_bytes);
    if (bmp.packing == Packing::masks) return read_masks(bmp, header_bytes);
    if (bmp.bits > 8) return true;
    const std::size_t used = bmp.number(46, 4);
    return read_palette(bmp, used == 0 ? std::size_t { 1 } << bmp.bits : used, 4);
}

/// The header of OS/2, of 12 bytes: sides of 16 bits, and palettes without a fourth byte.
bool read_core(Bmp& bmp)
{
    if (bmp.file.size < 26) return false;
    bmp.width = static_cast<std::int32_t>(bmp.number(18, 2));
    bmp.height = static_cast<std::int32_t>(bmp.number(20, 2));
    bmp.bits = static_cast<int>(bmp.number(24, 2));
    if (bmp.bits != 1 && bmp.bits != 4 && bmp.bits != 8 && bmp.bits != 24 && bmp.bits != 32) return false;
    bmp.at = 26;
    return bmp.bits > 8 || read_palette(bmp, std::size_t { 1 } << bmp.bits, 3);
}

bool read_header(Bmp& bmp)
{
    if (bmp.file.size < 18) return false;
    const std::size_t header_bytes = bmp.number(14, 4);
    if (!(header_bytes == 12 ? read_core(bmp) : read_info(bmp, header_bytes))) return false;
    bmp.at = bmp.number(10, 4);
    return bmp.at < bmp.file.size;
}

void put(cv::Mat& picture, int y, int x, const cv::Vec3b& bgr, uchar alpha = 255)
{
    if (picture.channels() == 1)
        picture.at<uchar>(y, x) = static_cast<uchar>(grey_of(bgr[0], bgr[1], bgr[2]));
    else if (picture.channels() == 3)
        picture.at<cv::Vec3b>(y, x) = bgr;
    else
        picture.at<cv::Vec4b>(y, x) = { bgr[0], bgr[1], bgr[2], alpha };
}

/// The x-th pixel of a row of the file; five and six bits become the high ones of eight.
cv::Vec3b pixel(const Bmp& bmp, const unsigned char* row, std::size_t x)
{
    const auto high = [](int value) { return static_cast<uchar>(value & 255); };
    if (bmp.bits <= 8) {
        const std::size_t bit = x * static_cast<std::size_t>(bmp.bits),
                          in_byte = 8 - static_cast<std::size_t>(bmp.bits);
        return bmp.palette[(row[bit / 8] >> (in_byte - bit % 8)) & ((1U << bmp.bits) - 1)];
    }
    if (bmp.bits <= 16) {
        const int v = row[2 * x] | (row[2 * x + 1] << 8);
        if (bmp.bits == 15) return { high(v << 3), high((v >> 2) & ~7), high((v >> 7) & ~7) };
        return { high(v << 3), high((v >> 3) & ~3), high((v >> 8) & ~7) };
    }
    const unsigned char* bgr = row + x * static_cast<std::size_t>(bmp.bits / 8);
    return { bgr[0], bgr[1], bgr[2] };
}

/// A row of the file into row y of the picture. The two usual kinds, 8-bit grey and 24-bit colour, need no look at
/// each.
void put_row(const Bmp& bmp, const unsigned char* row, const std::array<uchar, 256>& greys, cv::Mat& picture, int y)
{
    uchar* to = picture.ptr(y);
    if (bmp.bits == 8 && picture.channels() == 1) {
        std::transform(row, row + picture.cols, to, [&greys](unsigned char index) { return greys[index]; });
        return;
    }
    if (bmp.bits == 24 && picture.channels() == 3) {
        std::copy_n(row, picture.cols * 3, to);
        return;
    }
    const bool alpha = bmp.bits == 32 && !bmp.opaque;
    for (int x = 0; x < picture.cols; ++x)
        put(picture, y, x, pixel(bmp, row, at(x)), alpha ? row[at(x) * 4 + 3] : uchar { 255 });
}

bool read_rows(Bmp& bmp, cv::Mat& picture)
{
    const std::size_t bits = bmp.bits == 15 ? 16 : static_cast<std::size_t>(bmp.bits);
    const std::size_t row_bytes = (static_cast<std::size_t>(bmp.width) * bits + 31) / 32 * 4;
    std::array<uchar, 256> greys {};
    std::transform(bmp.palette.begin(), bmp.palette.end(), greys.begin(),
        [](const cv::Vec3b& c) { return static_cast<uchar>(grey_of(c[0], c[1], c[2])); });
    for (int y = 0; y < picture.rows; ++y, bmp.at += row_bytes) {
        if (!bmp.has(row_bytes)) return false;
        put_row(bmp, bmp.file.first + bmp.at, greys, picture, bmp.row(y));
    }
    return true;
}

/// `count` pixels of one row: of one byte each or half of one, all of the same byte, or each with its own.
bool put_run(Bmp& bmp, cv::Mat& picture, cv::Point at, int count, bool same)
{
    const bool halves = bmp.packing == Packing::runs_of_4_bits;
    const std::size_t bytes = same ? 1 : static_cast<std::size_t>(halves ? (count + 1) / 2 : count);
    if (at.x + count > picture.cols || !bmp.has(bytes)) return false;
    for (int i = 0; i < count; ++i) {
        const int byte = bmp.file.first[bmp.at + static_cast<std::size_t>(same ? 0 : halves ? i / 2 : i)];
        const int index = !halves ? byte : i % 2 == 0 ? byte >> 4 : byte & 15;
        put(picture, bmp.row(at.y), at.x + i, bmp.palette[static_cast<std::size_t>(index)]);
    }
    bmp.at += same ? 1 : (bytes + 1) / 2 * 2; // own bytes are filled up to pairs
    return true;
}

/// Runs: (count, byte), or 0 and a code: end of the row, end of the picture, move on, or so many pixels' own bytes.
bool read_runs(Bmp& bmp, cv::Mat& picture)
{
    enum Code { end_of_row, end_of_picture, move };
    for (int y = 0; y < picture.rows; ++y)
        for (int x = 0; x < picture.cols; ++x)
            put(picture, y, x, bmp.palette[0]);
    for (cv::Point at(0, 0); at.y < picture.rows;) {
        if (!bmp.has(2)) return false;
        const int count = bmp.byte();
        const int code = count > 0 ? 0 : bmp.byte();
        if (count > 0 || code > move) {
            if (!put_run(bmp, picture, at, count + code, count > 0)) return false;
            at.x += count + code;
        } else if (code == end_of_picture) {
            return true;
        } else if (code == end_of_row) {
            at = { 0, at.y + 1 };
        } else {
            if (!bmp.has(2)) return false;
            at.x += bmp.byte();
            at.y += bmp.byte();
            if (at.x > picture.cols) return false;
        }
    }
    return true;
}

} // namespace

cv::Mat decode_bmp(Bytes file, PictureAs as)
{
    Bmp bmp { file };
    if (!read_header(bmp)) return {};
    cv::Mat picture = room_for(bmp.width, bmp.rows(), type_as(bmp.type(), as));
    if (picture.empty()) return {};
    const bool runs = bmp.packing == Packing::runs_of_8_bits || bmp.packing == Packing::runs_of_4_bits;
    return (runs ? read_runs(bmp, picture) : read_rows(bmp, picture)) ? picture : cv::Mat();
}

std::vector<unsigned char> encode_bmp(const cv::Mat& picture)
{
    const int channels = picture.channels();
    if (picture.depth() != CV_8U || (channels != 1 && channels != 3)) return {};
    std::vector<unsigned char> bytes { 'B', 'M' };
    const auto add = [&bytes](std::size_t value, int size) {
        for (int i = 0; i < size; ++i, value >>= 8)
            bytes.push_back(static_cast<unsigned char>(value & 255));
    };
    const std::size_t grey_levels = channels == 1 ? 256 : 0, before = 14 + 40 + 4 * grey_levels;
    const std::size_t used = static_cast<std::size_t>(picture.cols) * picture.elemSize(), row = (used + 3) / 4 * 4;
    const std::size_t rows = static_cast<std::size_t>(picture.rows);
    for (const std::size_t value : { before + row * rows, std::size_t { 0 }, before, std::size_t { 40 },
             static_cast<std::size_t>(picture.cols), rows })
        add(value, 4);
    add(1, 2);
    add(static_cast<std::size_t>(channels) * 8, 2);
    add(0, 24);
    for (std::size_t grey = 0; grey < grey_levels; ++grey)
        add(grey * 0x10101, 4);
    for (int y = picture.rows - 1; y >= 0; --y) {
        bytes.insert(bytes.end(), picture.ptr(y), picture.ptr(y) + used);
        add(0, static_cast<int>(row - used));
    }
    return bytes;
}

} // namespace picture_file
} // namespace vexo
