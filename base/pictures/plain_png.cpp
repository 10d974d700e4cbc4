#include "base/pictures/plain_png.h"

#include <libdeflate.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace vexo {
namespace picture_file {

namespace {

constexpr unsigned char signature[8] = { 0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n' };

std::uint32_t number_at(const unsigned char* bytes)
{
    return std::uint32_t { bytes[0] } << 24 | std::uint32_t { bytes[1] } << 16 | std::uint32_t { bytes[2] } << 8
        | bytes[3];
}

/// The parts of a file that matter to grey values.
struct Parts {
    int width = 0, height = 0, bytes_per_pixel = 0;
    std::vector<unsigned char> packed;

    std::size_t row_bytes() const
    {
        return static_cast<std::size_t>(width) * static_cast<std::size_t>(bytes_per_pixel);
    }
    /// Each row has the number of its filter in front.
    std::size_t unpacked_bytes() const { return (row_bytes() + 1) * static_cast<std::size_t>(height); }
};

/// Reads chunk after chunk: length, name, contents, check sum of the two latter.
class Chunks {
public:
    explicit Chunks(Bytes file)
        : _at(file.first)
        , _left(file.size)
    {
    }

    /// False: the file is of another kind, or not in order.
    bool read(Parts& parts)
    {
        if (_left < sizeof signature || std::memcmp(_at, signature, sizeof signature) != 0) return false;
        _skip(sizeof signature);
        if (!_next() || !_is("IHDR") || !_header(parts)) return false;
        parts.packed.reserve(_left);
        while (_next()) {
            if (_is("IEND")) return _length == 0 && !parts.packed.empty();
            if (_is("IDAT"))
                parts.packed.insert(parts.packed.end(), _contents, _contents + _length);
            else if (!_says_nothing_of_grey() || (!parts.packed.empty() && !_is("tEXt") && !_is("tIME")))
                return false;
        }
        return false; // the end is missing
    }

private:
    void _skip(std::size_t count)
    {
        _at += count;
        _left -= count;
    }

    bool _next()
    {
        constexpr std::size_t around = 12;
        if (_left < around) return false;
        _length = number_at(_at);
        if (_length > _left - around) return false;
        _name = _at + 4;
        _contents = _at + 8;
        const std::uint32_t sum = libdeflate_crc32(0, _name, 4 + _length);
        if (sum != number_at(_contents + _length)) return false;
        _skip(around + _length);
        return true;
    }

    bool _is(const char* name) const { return std::memcmp(_name, name, 4) == 0; }

    bool _header(Parts& parts) const
    {
        constexpr std::size_t header_bytes = 13;
        if (_length != header_bytes) return false;
        const int depth = _contents[8], colours = _contents[9], packing = _contents[10], filters = _contents[11],
                  interlacing = _contents[12];
        if ((depth != 8 && depth != 16) || colours != 0 || packing != 0 || filters != 0 || interlacing != 0)
            return false;
        parts.width = static_cast<int>(number_at(_contents));
        parts.height = static_cast<int>(number_at(_contents + 4));
        parts.bytes_per_pixel = depth / 8;
        return parts.width > 0 && parts.height > 0;
    }

    /// Colour spaces, resolution, time and texts leave stored values as they are.
    bool _says_nothing_of_grey() const
    {
        static constexpr const char* harmless[] = { "gAMA", "cHRM", "sRGB", "pHYs", "tIME", "tEXt" };
        return std::any_of(std::begin(harmless), std::end(harmless), [this](const char* name) { return _is(name); });
    }

    const unsigned char* _at;
    std::size_t _left;
    const unsigned char *_name = nullptr, *_contents = nullptr;
    std::size_t _length = 0;
};

unsigned char byte(int value)
{
    return static_cast<unsigned char>(value);
}

/// What of its neighbours left, up and up left lies nearest to left + up - up left (PNG, 9.4).
int paeth(int left, int up, int corner)
{
    const int to_left = std::abs(up - corner), to_up = std::abs(left - corner),
              to_corner = std::abs(left + up - 2 * corner);
    if (to_left <= to_up && to_left <= to_corner) return left;
    return to_up <= to_corner ? up : corner;
}

/// Undoes the filter of a row (PNG, 9.2): the bytes to the left stay in registers.
/// @param from  filtered
/// @param up    the row above; zeros for the first
template <int BytesPerPixel>
bool undo_filter(int filter, const unsigned char* from, const unsigned char* up, std::size_t count, unsigned char* to)
{
    int left[BytesPerPixel] = {}, corner[BytesPerPixel] = {};
    const auto each = [&](const auto& add) {
        for (std::size_t x = 0; x < count; x += BytesPerPixel)
            for (int b = 0; b < BytesPerPixel; ++b) {
                const std::size_t i = x + static_cast<std::size_t>(b);
                to[i] = byte(left[b] = byte(from[i] + add(i, b)));
                corner[b] = up[i];
            }
    };
    switch (filter) {
    case 0:
        std::memcpy(to, from, count);
        return true;
    case 1:
        each([&](std::size_t, int b) { return left[b]; });
        return true;
    case 2:
        for (std::size_t i = 0; i < count; ++i)
            to[i] = byte(from[i] + up[i]);
        return true;
    case 3:
        each([&](std::size_t i, int b) { return (left[b] + up[i]) / 2; });
        return true;
    case 4:
        each([&](std::size_t i, int b) { return paeth(left[b], up[i], corner[b]); });
        return true;
    default:
        return false;
    }
}

/// Undoes all filters.
template <int BytesPerPixel> bool undo_filters(const Parts& parts, const unsigned char* from, cv::Mat& picture)
{
    const std::size_t count = parts.row_bytes();
    const std::vector<unsigned char> zeros(count, 0);
    const unsigned char* up = zeros.data();
    for (int y = 0; y < parts.height; ++y, from += count + 1) {
        if (!undo_filter<BytesPerPixel>(from[0], from + 1, up, count, picture.ptr(y))) return false;
        up = picture.ptr(y);
    }
    return true;
}

bool unpack(const std::vector<unsigned char>& packed, unsigned char* to, std::size_t size)
{
    const std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> unpacker(
        libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
    std::size_t read = 0;
    return unpacker
        && libdeflate_zlib_decompress_ex(unpacker.get(), packed.data(), packed.size(), to, size, &read, nullptr)
        == LIBDEFLATE_SUCCESS
        && read == packed.size();
}

/// 16 bits stand high byte first.
void swap_bytes(cv::Mat& picture)
{
    for (int y = 0; y < picture.rows; ++y) {
        auto* const row = picture.ptr<std::uint16_t>(y);
        for (int x = 0; x < picture.cols; ++x)
            row[x] = static_cast<std::uint16_t>(row[x] << 8 | row[x] >> 8);
    }
}

/// A file that is being made, chunk after chunk.
class PngFileOf {
public:
    PngFileOf() { bytes.assign(std::begin(signature), std::end(signature)); }

    void add(const char* name, const std::vector<unsigned char>& contents)
    {
        _add_number(static_cast<std::uint32_t>(contents.size()));
        const std::size_t begin = bytes.size();
        bytes.insert(bytes.end(), name, name + 4);
        bytes.insert(bytes.end(), contents.begin(), contents.end());
        _add_number(libdeflate_crc32(0, bytes.data() + begin, bytes.size() - begin));
    }

    std::vector<unsigned char> bytes;

private:
    void _add_number(std::uint32_t number)
    {
        for (const int shift : { 24, 16, 8, 0 })
            bytes.push_back(static_cast<unsigned char>(number >> shift));
    }
};

std::vector<unsigned char> header_of(const cv::Mat& picture, bool numbers)
{
    std::vector<unsigned char> header;
    for (const int length : { picture.cols, picture.rows })
        for (const int shift : { 24, 16, 8, 0 })
            header.push_back(static_cast<unsigned char>(length >> shift));
    constexpr int grey = 0, indexed = 3;
    for (const int value : { picture.depth() == CV_16U ? 16 : 8, numbers ? indexed : grey, 0, 0, 0 })
        header.push_back(static_cast<unsigned char>(value));
    return header;
}

/// Rows as they are packed: numbers as they are, grey as differences from the value to the left (PNG, 9.2).
std::vector<unsigned char> filtered(const cv::Mat& picture, bool numbers)
{
    const std::size_t pixel = picture.elemSize(), count = static_cast<std::size_t>(picture.cols) * pixel;
    std::vector<unsigned char> rows((count + 1) * static_cast<std::size_t>(picture.rows)), swapped(count);
    unsigned char* to = rows.data();
    for (int y = 0; y < picture.rows; ++y, to += count + 1) {
        const unsigned char* from = picture.ptr(y);
        for (std::size_t i = 0; pixel == 2 && i < count; ++i) // high byte first
            swapped[i] = from[i ^ 1U];
        if (pixel == 2) from = swapped.data();
        to[0] = numbers ? 0 : 1;
        std::memcpy(to + 1, from, numbers ? count : pixel);
        for (std::size_t i = pixel; !numbers && i < count; ++i)
            to[1 + i] = byte(from[i] - from[i - pixel]);
    }
    return rows;
}

/// No bytes where there is no memory.
std::vector<unsigned char> packed(const std::vector<unsigned char>& rows)
{
    constexpr int quickest = 1;
    const std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> packer(
        libdeflate_alloc_compressor(quickest), libdeflate_free_compressor);
    if (!packer) return {};
    std::vector<unsigned char> to(libdeflate_zlib_compress_bound(packer.get(), rows.size()));
    to.resize(libdeflate_zlib_compress(packer.get(), rows.data(), rows.size(), to.data(), to.size()));
    return to;
}

} // namespace

cv::Mat decode_plain_png(Bytes file)
{
    Parts parts;
    if (!Chunks(file).read(parts)) return {};
    const bool deep = parts.bytes_per_pixel == 2;
    cv::Mat picture = room_for(parts.width, parts.height, deep ? CV_16U : CV_8U);
    if (picture.empty()) return {};
    const std::unique_ptr<unsigned char[]> unpacked(new unsigned char[parts.unpacked_bytes()]);
    if (!unpack(parts.packed, unpacked.get(), parts.unpacked_bytes())) return {};
    if (!(deep ? undo_filters<2>(parts, unpacked.get(), picture) : undo_filters<1>(parts, unpacked.get(), picture)))
        return {};
    if (deep) swap_bytes(picture);
    return picture;
}

std::vector<unsigned char> encode_plain_png(const cv::Mat& picture, const std::vector<cv::Vec3b>& colours)
{
    const bool numbers = !colours.empty();
    const std::vector<unsigned char> contents = packed(filtered(picture, numbers));
    if (contents.empty()) return {};
    PngFileOf file;
    file.add("IHDR", header_of(picture, numbers));
    std::vector<unsigned char> palette;
    for (const cv::Vec3b& colour : colours)
        palette.insert(palette.end(), { colour[2], colour[1], colour[0] });
    if (numbers) file.add("PLTE", palette);
    file.add("IDAT", contents);
    file.add("IEND", {});
    return std::move(file.bytes);
}

} // namespace picture_file
} // namespace vexo
