#include "base/text.h"

#include <cmath>
#include <locale>
#include <sstream>

namespace vexo {

std::string number(double value, int decimals)
{
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text.setf(std::ios::fixed);
    text.precision(decimals);
    text << value;
    const std::string written = text.str();
    const bool is_zero = written.find_first_of("123456789") == std::string::npos;
    return is_zero && written[0] == '-' ? written.substr(1) : written;
}

std::string percent(double part, double whole)
{
    return whole > 0 ? number(100.0 * part / whole, 2) + " %" : "-";
}

std::string grouped(long long value)
{
    std::string digits = std::to_string(value);
    for (std::size_t i = digits.size(); i > 3 + (value < 0 ? 1U : 0U);)
        digits.insert(i -= 3, 1, ' ');
    return digits;
}

std::string size_text(int width, int height)
{
    return std::to_string(width) + " x " + std::to_string(height);
}

std::string shown(const std::string& text)
{
    constexpr std::size_t longest = 60;
    std::string line = text.substr(0, longest);
    for (char& c : line)
        if (static_cast<unsigned char>(c) < ' ' || c == '\x7F') c = '?';
    return text.size() > longest ? line + "..." : line;
}

} // namespace vexo
