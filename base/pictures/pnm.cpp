#include "base/pictures/format.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

namespace vexo {
namespace picture_file {

namespace {

/// The header of a PNM file, and what follows: P1 to P3 are text, P4 to P6 bytes; bits, grey or colour.
struct Pnm {
    Bytes file;
    std::size_t at = 2;
    int kind = 0; ///< 1 to 6
    std::int64_t width = 0, height = 0;
    int brightest = 1;

    bool text() const { return kind <= 3; }
    bool bits() const { return kind == 1 || kind == 4; }
    int channels() const { return kind % 3 == 0 ? 3 : 1; }
    int type() const { return CV_MAKETYPE(brightest > 255 ? CV_16U : CV_8U, channels()); }
    std::size_t left() const { return file.size - at; }
};

bool is_digit(unsigned char c)
{
    return c >= '0' && c <= '9';
}

bool is_space(unsigned char c) // whatever locale the host has set
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// The next number, after white space and comments. White space ends it, too.
/// @param digits  at most so many; where one is asked for, as for pixels of P1, nothing need come in between
/// @return        -1 where there is none
std::int64_t next_number(Pnm& pnm, int digits = 9)
{
    for (bool comment = false; pnm.left() > 0 && (comment || !is_digit(pnm.file.first[pnm.at])); ++pnm.at) {
        const unsigned char c = pnm.file.first[pnm.at];
        if (!comment && c != '#' && !is_space(c)) return -1;
        comment = (comment || c == '#') && c != '\n' && c != '\r';
    }
    if (pnm.left() == 0) return -1;
    std::int64_t number = 0;
    const bool one_digit = digits == 1;
    for (; digits > 0 && pnm.left() > 0 && is_digit(pnm.file.first[pnm.at]); ++pnm.at, --digits)
        number = number * 10 + pnm.file.first[pnm.at] - '0';
    const bool ended = one_digit || pnm.left() == 0 || is_space(pnm.file.first[pnm.at]);
    return ended ? number : -1;
}

bool read_header(Pnm& pnm)
{
    constexpr std::int64_t brightest_of_16_bits = 65535;
    if (pnm.file.size < 3 || pnm.file.first[0] != 'P') return false;
    pnm.kind = pnm.file.first[1] - '0';
    if (pnm.kind < 1 || pnm.kind > 6) return false;
    pnm.width = next_number(pnm);
    pnm.height = next_number(pnm);
    const std::int64_t brightest = pnm.bits() ? 1 : next_number(pnm);
    if (brightest < 1 || brightest > brightest_of_16_bits || pnm.left() == 0) return false;
    pnm.brightest = static_cast<int>(brightest);
    if (!is_space(pnm.file.first[pnm.at])) return false;
    ++pnm.at;
    return true;
}

/// One sample of a text file. -1 at its end.
int next_sample(Pnm& pnm)
{
    constexpr int white = 255;
    const std::int64_t number = next_number(pnm, pnm.bits() ? 1 : 9);
    if (number < 0) return -1;
    if (pnm.bits()) return number == 0 ? white : 0;
    const int sample = static_cast<int>(std::min<std::int64_t>(number, pnm.brightest));
    return pnm.brightest > white ? sample : sample * white / pnm.brightest;
}

/// Samples of one row as the file has them, widened to 16 bits. False at the file's end.
bool read_row(Pnm& pnm, std::vector<std::uint16_t>& row)
{
    if (pnm.text()) {
        for (std::uint16_t& value : row) {
            const int sample = next_sample(pnm);
            if (sample < 0) return false;
            value = static_cast<std::uint16_t>(sample);
        }
        return true;
    }
    const bool wide = pnm.brightest > 255;
    const std::size_t bytes = pnm.bits() ? (row.size() + 7) / 8 : row.size() * (wide ? 2 : 1);
    if (pnm.left() < bytes) return false;
    const unsigned char* from = pnm.file.first + pnm.at;
    for (std::size_t i = 0; i < row.size(); ++i) {
        const int sample = pnm.bits() ? (((from[i / 8] << (i % 8)) & 0x80) != 0 ? 0 : 255)
            : wide                    ? from[2 * i] * 256 + from[2 * i + 1]
                                      : from[i];
        row[i] = static_cast<std::uint16_t>(sample);
    }
    pnm.at += bytes;
    return true;
}

/// One row of the picture: T is its number, `shift` the bits that it has fewer than the file.
template <class T> void put_row(const std::vector<std::uint16_t>& row, int channels, int shift, cv::Mat out)
{
    T* to = out.ptr<T>();
    for (std::size_t x = 0; x < static_cast<std::size_t>(out.cols); ++x) {
        const std::uint16_t* rgb = &row[x * static_cast<std::size_t>(channels)];
        const int red = rgb[0] >> shift;
        const int green = channels == 3 ? rgb[1] >> shift : red, blue = channels == 3 ? rgb[2] >> shift : red;
        if (out.channels() == 1) {
            to[x] = static_cast<T>(channels == 3 ? grey_of(blue, green, red) : red);
            continue;
        }
        to[3 * x] = static_cast<T>(blue);
        to[3 * x + 1] = static_cast<T>(green);
        to[3 * x + 2] = static_cast<T>(red);
    }
}

/// The most common file, one byte a pixel, is copied.
bool copy_rows(const Pnm& pnm, cv::Mat& picture)
{
    if (pnm.left() < picture.total()) return false;
    std::memcpy(picture.data, pnm.file.first + pnm.at, picture.total());
    return true;
}

bool read_rows(Pnm& pnm, cv::Mat& picture)
{
    if (pnm.kind == 5 && pnm.brightest <= 255 && picture.type() == CV_8UC1) return copy_rows(pnm, picture);
    std::vector<std::uint16_t> row(static_cast<std::size_t>(picture.cols) * static_cast<std::size_t>(pnm.channels()));
    const int shift = pnm.brightest > 255 && picture.depth() == CV_8U ? 8 : 0;
    for (int y = 0; y < picture.rows; ++y) {
        if (!read_row(pnm, row)) return false;
        if (picture.depth() == CV_8U)
            put_row<std::uint8_t>(row, pnm.channels(), shift, picture.row(y));
        else
            put_row<std::uint16_t>(row, pnm.channels(), shift, picture.row(y));
    }
    return true;
}

/// A row as bytes, red first, the high byte first.
template <class T> void add_row(const cv::Mat& row, std::vector<unsigned char>& bytes)
{
    const int channels = row.channels();
    for (int x = 0; x < row.cols; ++x)
        for (int c = channels - 1; c >= 0; --c) {
            const int value = row.ptr<T>()[x * channels + c];
            if (sizeof(T) == 2) bytes.push_back(static_cast<unsigned char>(value >> 8));
            bytes.push_back(static_cast<unsigned char>(value & 255));
        }
}

} // namespace

cv::Mat decode_pnm(Bytes file, PictureAs as)
{
    Pnm pnm { file };
    if (!read_header(pnm)) return {};
    cv::Mat picture = room_for(pnm.width, pnm.height, type_as(pnm.type(), as));
    if (picture.empty() || !read_rows(pnm, picture)) return {};
    return picture;
}

std::vector<unsigned char> encode_pnm(const cv::Mat& picture)
{
    const bool wide = picture.depth() == CV_16U;
    if ((!wide && picture.depth() != CV_8U) || (picture.channels() != 1 && picture.channels() != 3)) return {};
    const std::string header = (picture.channels() == 1 ? "P5\n" : "P6\n") + std::to_string(picture.cols) + " "
        + std::to_string(picture.rows) + "\n" + (wide ? "65535\n" : "255\n");
    std::vector<unsigned char> bytes(header.begin(), header.end());
    bytes.reserve(bytes.size() + picture.total() * picture.elemSize());
    for (int y = 0; y < picture.rows; ++y)
        if (picture.type() == CV_8UC1)
            bytes.insert(bytes.end(), picture.ptr(y), picture.ptr(y) + picture.cols);
        else if (wide)
            add_row<std::uint16_t>(picture.row(y), bytes);
        else
            add_row<std::uint8_t>(picture.row(y), bytes);
    return bytes;
}

} // namespace picture_file
} // namespace vexo
