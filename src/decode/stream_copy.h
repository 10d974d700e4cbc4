#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vexo {

#if defined(__SSE2__)
/// Copies 64 bytes; `to` is a multiple of 16.
inline void stream_line(uint8_t* to, const uint8_t* from) noexcept
{
    for (std::size_t part = 0; part < 64; part += 16)
        _mm_stream_si128(
            reinterpret_cast<__m128i*>(to + part), _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + part)));
}
#endif

/// memcpy() for data that will not be read before much else has passed through the cache: written past the cache, so
/// that the target is not read first. Of 13 camera frames copied one after another, the first would be gone again
/// before the last has come. Follow the last of several by stream_fence(). The buffers do not overlap.
///
/// Four parts side by side: a processor fetches ahead within a page, and so waits for four pages at a time.
inline void stream_copy(uint8_t* to, const uint8_t* from, std::size_t bytes) noexcept
{
    std::size_t i = 0;
#if defined(__SSE2__)
    constexpr std::size_t parts = 4, line = 64;
    i = std::min(bytes, (16 - reinterpret_cast<std::uintptr_t>(to) % 16) % 16);
    std::memcpy(to, from, i);
    const std::size_t part = (bytes - i) / (parts * line) * line;
    for (const std::size_t end = i + part; i < end; i += line)
        for (std::size_t p = 0; p < parts; ++p)
            stream_line(to + p * part + i, from + p * part + i);
    i += (parts - 1) * part;
#endif
    std::memcpy(to + i, from + i, bytes - i);
}

/// Makes the stores of stream_copy() visible to other threads before whatever lets them read.
inline void stream_fence() noexcept
{
#if defined(__SSE2__)
    _mm_sfence();
#endif
}

} // namespace vexo
