#include "base/pictures/format.h"

#include "vexo/limits.h"

#include <cstdint>

namespace vexo {
namespace picture_file {

int type_as(int stored, PictureAs as) noexcept
{
    switch (as) {
    case PictureAs::grey:
        return CV_8UC1;
    case PictureAs::deep_grey:
        return CV_MAKETYPE(CV_MAT_DEPTH(stored), 1);
    case PictureAs::colour:
        return CV_8UC3;
    case PictureAs::stored:
        break;
    }
    return stored;
}

cv::Mat room_for(std::int64_t width, std::int64_t height, int type)
{
    constexpr std::int64_t largest_side = std::int64_t { 1 } << 20;
    if (width < 1 || height < 1 || width > largest_side || height > largest_side || width * height > max_picture_area)
        return {};
    return cv::Mat(static_cast<int>(height), static_cast<int>(width), type);
}

void turn_upright(cv::Mat& picture, int orientation)
{
    constexpr int about_x = 0, about_y = 1, about_both = -1; // cv::flip's codes
    if (orientation >= 5 && orientation <= 8) picture = picture.t();
    if (orientation == 2 || orientation == 6) cv::flip(picture, picture, about_y);
    if (orientation == 4 || orientation == 8) cv::flip(picture, picture, about_x);
    if (orientation == 3 || orientation == 7) cv::flip(picture, picture, about_both);
}

int exif_orientation(Bytes exif) noexcept
{
    constexpr std::size_t header = 8, entry_bytes = 12;
    constexpr unsigned orientation_tag = 0x0112;
    if (exif.size < header || exif.first[0] != exif.first[1]) return 1;
    const bool little = exif.first[0] == 'I';
    const auto number = [&](std::size_t at, std::size_t bytes) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i)
            value = (value << 8) | exif.first[little ? at + bytes - 1 - i : at + i];
        return value;
    };
    if ((!little && exif.first[0] != 'M') || number(2, 2) != 42) return 1;
    const std::size_t directory = number(4, 4);
    if (directory + 2 > exif.size) return 1;
    const std::size_t entries = number(directory, 2);
    for (std::size_t i = 0; i < entries; ++i) {
        const std::size_t entry = directory + 2 + i * entry_bytes;
        if (entry + entry_bytes > exif.size) return 1;
        if (number(entry, 2) == orientation_tag) return static_cast<int>(number(entry + header, 2));
    }
    return 1;
}

} // namespace picture_file
} // namespace vexo
