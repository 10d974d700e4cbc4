#include "decode/rows/bit_row.h"

#include <algorithm>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vexo {
namespace {

/// One bit for each of 16 bytes.
uint16_t pack16(const uint8_t* flags) noexcept
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
uint64_t spread8(uint64_t bits) noexcept
{
    const uint64_t own = bits * 0x0101010101010101U & 0x8040201008040201U;
    const uint64_t set = (own + 0x7f7f7f7f7f7f7f7fU) >> 7 & 0x0101010101010101U; // no byte overflows
    return set * 255;
}

} // namespace

void BitRow::pack(const uint8_t* flags) noexcept
{
    for (uint64_t& word : _words) {
        word = 0;
        for (int i = 0; i < 64; i += 16, flags += 16)
            word |= uint64_t { pack16(flags) } << i;
    }
}

BitRow::Range BitRow::range(int cols) const noexcept
{
    std::size_t first = 0, last = _words.size();
    while (first < last && _words[first] == 0)
        ++first;
    while (first < last && _words[last - 1] == 0)
        --last;
    if (first == last) return { 0, 0 };
    return { static_cast<int>(64 * first), std::min(static_cast<int>(64 * last), cols) };
}

int BitRow::count() const noexcept
{
    int n = 0;
    for (const uint64_t word : _words)
        n += __builtin_popcountll(word);
    return n;
}

void BitRow::unpack(uint8_t* mask, int cols) const noexcept
{
    int x = 0;
    for (; x + 8 <= cols; x += 8) {
        const uint64_t spread = spread8(_words[_word(x)] >> _bit(x) & 255);
        std::memcpy(mask + x, &spread, 8);
    }
    for (; x < cols; ++x)
        mask[x] = (*this)[x] ? 255 : 0;
}

} // namespace vexo
