#include "host/captures/names.h"

#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;

std::optional<int> number_in_name(const std::string& path)
{
    constexpr std::size_t most_digits = 9;
    const std::string stem = fs::path(path).stem().string();
    const std::size_t last = stem.find_last_of("0123456789");
    if (last == std::string::npos) return std::nullopt;
    std::size_t first = last;
    while (first > 0 && stem[first - 1] >= '0' && stem[first - 1] <= '9' && last - first + 1 < most_digits)
        --first;
    return std::stoi(stem.substr(first, last - first + 1));
}

} // namespace vexo
