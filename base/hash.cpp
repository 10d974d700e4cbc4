#include "base/hash.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace vexo {

namespace {

using State = std::array<std::uint32_t, 8>;
constexpr std::size_t block = 64;

/// The first 32 bits of the fractions of the cube roots of the first 64 primes.
constexpr std::array<std::uint32_t, block> constants { 0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b,
    0x59f111f1, 0x923f82a4, 0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
    0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc,
    0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1,
    0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116, 0x1e376c08,
    0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3, 0x748f82ee, 0x78a5636f, 0x84c87814,
    0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2 };

std::uint32_t turned(std::uint32_t word, int bits)
{
    return (word >> bits) | (word << (32 - bits));
}

/// The schedule of one block: its 16 big-endian words, and 48 mixed from them.
std::array<std::uint32_t, block> schedule(const unsigned char* bytes)
{
    std::array<std::uint32_t, block> w {};
    for (std::size_t i = 0; i < 16; ++i)
        w[i] = std::uint32_t { bytes[4 * i] } << 24 | std::uint32_t { bytes[4 * i + 1] } << 16
            | std::uint32_t { bytes[4 * i + 2] } << 8 | std::uint32_t { bytes[4 * i + 3] };
    for (std::size_t i = 16; i < block; ++i) {
        const std::uint32_t a = w[i - 15], b = w[i - 2];
        w[i] = w[i - 16] + w[i - 7] + (turned(a, 7) ^ turned(a, 18) ^ (a >> 3))
            + (turned(b, 17) ^ turned(b, 19) ^ (b >> 10));
    }
    return w;
}

void mix(State& state, const unsigned char* bytes)
{
    const auto w = schedule(bytes);
    auto [a, b, c, d, e, f, g, h] = state;
    for (std::size_t i = 0; i < block; ++i) {
        const std::uint32_t first
            = h + (turned(e, 6) ^ turned(e, 11) ^ turned(e, 25)) + ((e & f) ^ (~e & g)) + constants[i] + w[i];
        const std::uint32_t second = (turned(a, 2) ^ turned(a, 13) ^ turned(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
        h = g, g = f, f = e, e = d + first;
        d = c, c = b, b = a, a = first + second;
    }
    const State mixed { a, b, c, d, e, f, g, h };
    for (std::size_t i = 0; i < state.size(); ++i)
        state[i] += mixed[i];
}

/// What follows the last whole block: the rest, a one, zeros, and the length in bits.
void mix_rest(State& state, const unsigned char* bytes, std::size_t rest, std::size_t size)
{
    std::array<unsigned char, 2 * block> last {};
    std::copy(bytes, bytes + rest, last.begin());
    last[rest] = 0x80;
    const std::size_t end = rest + 9 <= block ? block : 2 * block;
    for (std::size_t i = 0; i < 8; ++i)
        last[end - 1 - i] = static_cast<unsigned char>((static_cast<std::uint64_t>(size) * 8) >> (8 * i));
    for (std::size_t at = 0; at < end; at += block)
        mix(state, last.data() + at);
}

} // namespace

std::string sha256(const void* bytes, std::size_t size)
{
    State state { 0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a, 0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19 };
    const auto* data = static_cast<const unsigned char*>(bytes);
    const std::size_t whole = size / block * block;
    for (std::size_t at = 0; at < whole; at += block)
        mix(state, data + at);
    if (size > 0) data += whole;
    mix_rest(state, data, size - whole, size);
    std::string text;
    for (const std::uint32_t word : state)
        for (int shift = 28; shift >= 0; shift -= 4)
            text += "0123456789abcdef"[(word >> shift) & 15U];
    return text;
}

std::string sha256(const std::string& bytes)
{
    return sha256(bytes.data(), bytes.size());
}

std::string sha256(const std::vector<unsigned char>& bytes)
{
    return sha256(bytes.data(), bytes.size());
}

} // namespace vexo
