#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace vexo {

/// A row of flags, one bit a pixel: 64 pixels are looked at in one step, and the next set one is found by counting
/// zeros. After the last pixel there is at least one bit that is never set.
///
/// Threads  none; belongs to one thread.
class BitRow {
public:
    /// Room for a row, all clear; allocates only when it grows.
    void resize(int cols) { _words.assign(words_of(cols), 0); }
    /// Words of a row, and bytes of flags that pack() reads.
    static std::size_t words_of(int cols) noexcept { return static_cast<std::size_t>(cols) / 64 + 1; }
    static std::size_t flags_of(int cols) noexcept { return 64 * words_of(cols); }

    /// Bits from bytes. @param flags  255 or 0, flags_of(cols) of them
    void pack(const uint8_t* flags) noexcept;

    std::size_t words() const noexcept { return _words.size(); }
    uint64_t word(std::size_t i) const noexcept { return _words[i]; }
    bool operator[](int x) const noexcept { return (_words[_word(x)] >> _bit(x) & 1) != 0; }
    void clear(int x) noexcept { _words[_word(x)] &= ~(uint64_t { 1 } << _bit(x)); }
    void clear() noexcept { std::memset(_words.data(), 0, 8 * _words.size()); }

    /// Columns of the words from the first to the last with a set bit; 0 to 0 when there is none.
    struct Range {
        int begin;
        int end;
    };
    Range range(int cols) const noexcept;

    int count() const noexcept;
    /// The set bit nearest to x on the left, -1 when there is none.
    int before(int x) const noexcept
    {
        std::size_t i = _word(x);
        uint64_t word = _words[i] & ((uint64_t { 1 } << _bit(x)) - 1);
        while (word == 0) {
            if (i == 0) return -1;
            word = _words[--i];
        }
        return static_cast<int>(64 * i) + 63 - __builtin_clzll(word);
    }
    /// The set bit nearest to x on the right, -1 when there is none.
    int after(int x) const noexcept
    {
        std::size_t i = _word(x);
        uint64_t word = _words[i] & ~uint64_t { 1 } << _bit(x);
        while (word == 0) {
            if (++i == _words.size()) return -1;
            word = _words[i];
        }
        return static_cast<int>(64 * i) + __builtin_ctzll(word);
    }
    /// Bytes from bits: 255 or 0, exactly `cols` of them.
    void unpack(uint8_t* mask, int cols) const noexcept;

private:
    static std::size_t _word(int x) noexcept { return static_cast<unsigned>(x) / 64; }
    static int _bit(int x) noexcept { return static_cast<int>(static_cast<unsigned>(x) % 64); }

    std::vector<uint64_t> _words;
};

} // namespace vexo
