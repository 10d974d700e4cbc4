#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vexo {

/// memcpy() for data that will not be read before much else has passed through the cache: written past the cache, so
/// that the target is not read first. Of 13 camera frames copied one after another, the first would be gone again
/// before the last has come. Follow the last of several by stream_fence(). The buffers do not overlap.
inline void stream_copy(uint8_t* to, const uint8_t* from, std::size_t bytes) noexcept
{
#if defined(__SSE2__)
    const std::size_t head = std::min(bytes, (16 - reinterpret_cast<std::uintptr_t>(to) % 16) % 16);
    std::memcpy(to, from, head);
    std::size_t i = head;
    for (; i + 64 <= bytes; i += 64)
        for (std::size_t part = 0; part < 64; part += 16)
            _mm_stream_si128(reinterpret_cast<__m128i*>(to + i + part),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i + part)));
    std::memcpy(to + i, from + i, bytes - i);
#else
    std::memcpy(to, from, bytes);
#endif
}

/// Makes the stores of stream_copy() visible to other threads before whatever tells them.
inline void stream_fence() noexcept
{
#if defined(__SSE2__)
    _mm_sfence();
#endif
}

} // namespace vexo
