#pragma once

#include <charconv>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace vexo {

/// The bytes of a file that is being made: numbers as x86-64 has them, little-endian, or as text, whatever the locale.
class ByteFile {
public:
    /// @param expected  bytes, about
    explicit ByteFile(std::size_t expected) { _bytes.reserve(expected); }

    template <typename Number> void put(const Number& number)
    {
        const std::size_t end = _bytes.size();
        _bytes.resize(end + sizeof number);
        std::memcpy(_bytes.data() + end, &number, sizeof number);
    }

    void text(std::string_view text) { _bytes.insert(_bytes.end(), text.begin(), text.end()); }

    /// The shortest text that reads as the same number, and what follows it.
    template <typename Number> void number(Number value, char next)
    {
        char digits[64]; // a float without an exponent has 49 at most
        char* end = nullptr;
        if constexpr (std::is_floating_point_v<Number>)
            end = std::to_chars(digits, digits + sizeof digits - 1, value, std::chars_format::fixed).ptr;
        else
            end = std::to_chars(digits, digits + sizeof digits - 1, value).ptr;
        *end = next;
        text({ digits, static_cast<std::size_t>(end - digits) + 1 });
    }

    /// Three numbers with blanks between them.
    template <typename Vector> void numbers(const Vector& v, char next)
    {
        number(v[0], ' ');
        number(v[1], ' ');
        number(v[2], next);
    }

    std::size_t size() const { return _bytes.size(); }
    std::vector<unsigned char> take() { return std::move(_bytes); }

private:
    std::vector<unsigned char> _bytes;
};

} // namespace vexo
