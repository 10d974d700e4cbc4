#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vexo {

/// A row of flags, one bit a pixel: 64 pixels are looked at in one step, and the next set one is found by counting
/// zeros. Behind the last pixel there is at least one bit that is never set.
///
/// Threads  none; belongs to one thread.
class RowBits {
public:
    /// Room for a row, all clear; allocates only when it grows.
    void resize(int cols) { _words.assign(words_of(cols), 0); }
    /// Words of a row, and bytes of flags that pack() reads.
    static std::size_t words_of(int cols) noexcept { return static_cast<std::size_t>(cols) / 64 + 1; }
    static std::size_t flags_of(int cols) noexcept { return 64 * words_of(cols); }

    /// Bits from bytes. @param flags  255 or 0, flags_of(cols) of them
    void pack(const uint8_t* flags) noexcept
    {
        for (uint64_t& word : _words) {
            word = 0;
            for (int i = 0; i < 64; i += 16, flags += 16)
                word |= uint64_t { _pack16(flags) } << i;
        }
    }

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
    Range range(int cols) const noexcept
    {
        std::size_t first = 0, last = _words.size();
        while (first < last && _words[first] == 0)
            ++first;
        while (first < last && _words[last - 1] == 0)
            --last;
        if (first == last) return { 0, 0 };
        return { static_cast<int>(64 * first), std::min(static_cast<int>(64 * last), cols) };
    }

    int count() const noexcept
    {
        int n = 0;
        for (const uint64_t word : _words)
            n += __builtin_popcountll(word);
        return n;
    }
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
    void unpack(uint8_t* mask, int cols) const noexcept
    {
        int x = 0;
        for (; x + 8 <= cols; x += 8) {
            const uint64_t spread = _spread(_words[_word(x)] >> _bit(x) & 255);
            std::memcpy(mask + x, &spread, 8);
        }
        for (; x < cols; ++x)
            mask[x] = (*this)[x] ? 255 : 0;
    }

private:
    static std::size_t _word(int x) noexcept { return static_cast<unsigned>(x) / 64; }
    static int _bit(int x) noexcept { return static_cast<int>(static_cast<unsigned>(x) % 64); }
    static uint16_t _pack16(const uint8_t* flags) noexcept
    {
#if defined(__SSE2__)
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(flags));
        return static_cast<uint16_t>(_mm_movemask_epi8(bytes));
#else
        unsigned bits = 0;
        for (unsigned i = 0; i < 16; ++i)
            bits |= unsigned { flags[i] } >> 7 << i;
        return static_cast<uint16_t>(bits);
#endif
    }
    /// Bit i of eight to byte i of eight: each byte of the product keeps its own bit alone, which then fills it.
    static uint64_t _spread(uint64_t bits) noexcept
    {
        const uint64_t own = bits * 0x0101010101010101U & 0x8040201008040201U;
        const uint64_t set = (own + 0x7f7f7f7f7f7f7f7fU) >> 7 & 0x0101010101010101U; // no byte overflows
        return set * 255;
    }

    std::vector<uint64_t> _words;
};

} // namespace vexo
