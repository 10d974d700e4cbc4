#include "base/picture_header.h"

#include <algorithm>
#include <cctype>
#include <cstdint>

namespace vexo {
namespace picture_file {

namespace {

/// Bytes of a file, read as numbers; past the end there are zeros.
class Header {
public:
    explicit Header(const std::string& bytes) noexcept
        : _bytes(bytes)
    {
    }

    std::size_t size() const noexcept { return _bytes.size(); }

    std::uint32_t at(std::size_t offset) const noexcept
    {
        return offset < _bytes.size() ? static_cast<unsigned char>(_bytes[offset]) : 0U;
    }

    std::uint32_t big(std::size_t offset, int bytes) const noexcept
    {
        std::uint32_t value = 0;
        for (int i = 0; i < bytes; ++i)
            value = (value << 8) | at(offset + static_cast<std::size_t>(i));
        return value;
    }

    std::uint32_t little(std::size_t offset, int bytes) const noexcept
    {
        std::uint32_t value = 0;
        for (int i = bytes - 1; i >= 0; --i)
            value = (value << 8) | at(offset + static_cast<std::size_t>(i));
        return value;
    }

    bool starts_with(const char* text, std::size_t length) const noexcept
    {
        return _bytes.compare(0, length, text, length) == 0;
    }

private:
    const std::string& _bytes;
};

/// A side that no int holds is as good as any other too large one.
cv::Size size_of(std::uint32_t width, std::uint32_t height) noexcept
{
    constexpr std::uint32_t largest = INT32_MAX;
    return { static_cast<int>(std::min(width, largest)), static_cast<int>(std::min(height, largest)) };
}

/// JPEG is a chain of segments FF marker length...; the size stands in the frame header, C0 to CF except for
/// the tables C4, C8 and CC.
cv::Size jpeg_size(const Header& file) noexcept
{
    std::size_t at = 2;
    while (at + 9 <= file.size()) {
        if (file.at(at) != 0xFF) return {};
        const std::uint32_t marker = file.at(at + 1);
        const bool frame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (frame) return size_of(file.big(at + 7, 2), file.big(at + 5, 2));
        const bool alone = marker == 0xFF || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD8);
        if (marker == 0xFF)
            at += 1;
        else
            at += alone ? 2 : 2 + std::size_t { file.big(at + 2, 2) };
    }
    return {};
}

/// Whether a JPEG shows its picture in at most 100 scans. A progressive one has about 10; each costs a pass over all
/// pixels, even an empty one of 10 bytes, so that a file of 1 MB can keep a decoder busy for ten minutes.
bool jpeg_has_few_scans(const std::string& bytes) noexcept
{
    constexpr int most = 100;
    constexpr std::uint32_t end = 0xD9, scan = 0xDA;
    const Header file(bytes);
    int scans = 0;
    for (std::size_t at = bytes.find('\xFF', 2); at < bytes.size() && scans <= most; at = bytes.find('\xFF', at)) {
        const std::uint32_t marker = file.at(at + 1);
        if (marker == end) break;
        if (marker == scan) ++scans;
        const bool alone = marker <= 0x01 || (marker >= 0xD0 && marker <= 0xD8); // 0: a byte FF of the scan's data
        at += marker == 0xFF ? 1 : alone ? 2 : 2 + std::size_t { file.big(at + 2, 2) };
    }
    return scans <= most;
}

/// BMP: the old core header has 16-bit sides; a negative height means top-down rows.
cv::Size bmp_size(const Header& file) noexcept
{
    if (file.little(14, 4) == 12) return size_of(file.little(18, 2), file.little(20, 2));
    const std::uint32_t height = file.little(22, 4);
    return size_of(file.little(18, 4), height > INT32_MAX ? 0U - height : height);
}

/// PNM: "P5", then width and height as text between white space and comments.
cv::Size pnm_size(const std::string& bytes) noexcept
{
    std::uint32_t sides[2] = { 0, 0 };
    std::size_t at = 2;
    for (std::uint32_t& side : sides) {
        while (at < bytes.size() && std::isdigit(static_cast<unsigned char>(bytes[at])) == 0) {
            if (bytes[at] == '#') at = std::min(bytes.find('\n', at), bytes.size());
            if (at < bytes.size()) ++at;
        }
        for (; at < bytes.size() && std::isdigit(static_cast<unsigned char>(bytes[at])) != 0; ++at)
            side = std::min<std::uint32_t>(side * 10 + static_cast<std::uint32_t>(bytes[at] - '0'), 100000000U);
    }
    return size_of(sides[0], sides[1]);
}

/// Classic TIFF: tags 256 and 257 of the first directory, 16 or 32 bits wide.
cv::Size tiff_size(const Header& file) noexcept
{
    const bool little = file.at(0) == 'I';
    const auto number
        = [&](std::size_t at, int bytes) { return little ? file.little(at, bytes) : file.big(at, bytes); };
    const std::size_t directory = number(4, 4);
    const std::uint32_t entries = number(directory, 2);
    std::uint32_t sides[2] = { 0, 0 };
    for (std::uint32_t i = 0; i < entries; ++i) {
        const std::size_t entry = directory + 2 + std::size_t { 12 } * i;
        const std::uint32_t tag = number(entry, 2);
        if (tag != 256 && tag != 257) continue;
        std::uint32_t& side = sides[tag - 256]; // given twice, a decoder may use either
        side = std::max(side, number(entry + 8, number(entry + 2, 2) == 3 ? 2 : 4));
    }
    return size_of(sides[0], sides[1]);
}

} // namespace

cv::Size announced_size(const std::string& bytes) noexcept
{
    const Header file(bytes);
    if (file.starts_with("\x89PNG", 4)) return size_of(file.big(16, 4), file.big(20, 4));
    if (file.starts_with("\xFF\xD8", 2)) return jpeg_size(file);
    if (file.starts_with("BM", 2)) return bmp_size(file);
    if (file.starts_with("II*\0", 4) || file.starts_with("MM\0*", 4)) return tiff_size(file);
    if (file.at(0) == 'P' && file.at(1) >= '1' && file.at(1) <= '6') return pnm_size(bytes);
    return {};
}

bool may_be_decoded(const std::string& bytes) noexcept
{
    const cv::Size size = announced_size(bytes);
    if (size.empty() || std::int64_t { size.width } * size.height > max_picture_area) return false;
    return !Header(bytes).starts_with("\xFF\xD8", 2) || jpeg_has_few_scans(bytes);
}

} // namespace picture_file
} // namespace vexo
