#include "base/pictures/palette.h"

#include <cstddef>
#include <cstdint>

namespace vexo {
namespace picture_file {

namespace {

constexpr std::size_t most_colours = 256;

std::uint32_t key_of(const cv::Vec3b& colour)
{
    return std::uint32_t { colour[0] } | std::uint32_t { colour[1] } << 8 | std::uint32_t { colour[2] } << 16;
}

/// Numbers colours in the order in which they come; a table with open addressing, a quarter full at most.
class Palette {
public:
    /// The number of a colour; most_colours for one too many.
    std::size_t number_of(const cv::Vec3b& colour)
    {
        const std::uint32_t key = key_of(colour);
        std::size_t slot = key * 2654435761U >> 22; // Knuth, The Art of Computer Programming, 6.4
        while (_keys[slot] != key) {
            if (_keys[slot] == free) {
                if (colours.size() == most_colours) return most_colours;
                _keys[slot] = key;
                _numbers[slot] = colours.size();
                colours.push_back(colour);
                break;
            }
            slot = (slot + 1) % slots;
        }
        return _numbers[slot];
    }

    std::vector<cv::Vec3b> colours;

private:
    static constexpr std::size_t slots = 1024;
    static constexpr std::uint32_t free = 0xFFFFFFFFU;

    std::vector<std::uint32_t> _keys = std::vector<std::uint32_t>(slots, free);
    std::vector<std::size_t> _numbers = std::vector<std::size_t>(slots, 0);
};

} // namespace

Indexed indexed(const cv::Mat& picture)
{
    Palette palette;
    cv::Mat indices(picture.size(), CV_8U);
    for (int y = 0; y < picture.rows; ++y) {
        const auto* const from = picture.ptr<cv::Vec3b>(y);
        uchar* const to = indices.ptr(y);
        for (int x = 0; x < picture.cols; ++x) {
            if (x > 0 && from[x] == from[x - 1]) {
                to[x] = to[x - 1];
                continue;
            }
            const std::size_t number = palette.number_of(from[x]);
            if (number == most_colours) return {};
            to[x] = static_cast<uchar>(number);
        }
    }
    return { indices, palette.colours };
}

} // namespace picture_file
} // namespace vexo
