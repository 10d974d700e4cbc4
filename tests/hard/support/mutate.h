#pragma once

#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>

namespace hard {

using Rng = std::mt19937_64;

/// A generator for trial i of a run.
inline Rng rng_of(uint64_t seed, long trial)
{
    std::seed_seq words { static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32),
        static_cast<uint32_t>(trial) };
    return Rng(words);
}

/// Uniform in 0 .. n - 1; 0 for n = 0.
inline std::size_t below(Rng& rng, std::size_t n)
{
    return n == 0 ? 0 : static_cast<std::size_t>(rng() % n);
}

template <class T> T one_of(Rng& rng, std::initializer_list<T> values)
{
    return values.begin()[below(rng, values.size())];
}

/// Numbers and words that parsers stumble over, and numbers of binary headers.
inline std::string awkward_token(Rng& rng)
{
    if (below(rng, 4) == 0) {
        const auto number = one_of<uint32_t>(
            rng, { 0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x7FC00000, 0x7F800000, 0x10000, 32767, 0x4E000000 });
        return { reinterpret_cast<const char*>(&number), 4 };
    }
    return one_of<const char*>(rng,
        { "0", "-1", "2147483647", "2147483648", "-2147483648", "1e308", "1e-308", "1e999", ".Nan", ".Inf", "-.Inf",
            "nan", "32767", "65536", "4294967296", "[", "]", "{", "}", "- ", ": ", "\"", "'", "!!binary |", "&a ", "*a",
            "%YAML:1.0", "---", "...", "!!opencv-matrix", "dt: d", "dt: \"3f\"", "rows: 0", "cols: 1000000", "data: [",
            "<?xml version=\"1.0\"?>", "#", "\t", "\n", "\n   ", "~", "\\", "\x80", "\xFF" });
}

/// Some changes of a file: cuts, flipped bits, pieces that go or come twice, tokens put in or in place of others.
inline std::string mutated(std::string bytes, Rng& rng)
{
    constexpr std::size_t largest = 1U << 20; // not the place to test large files
    for (std::size_t i = 1 + below(rng, one_of<std::size_t>(rng, { 1, 1, 3, 20 })); i > 0; --i) {
        const std::size_t at = below(rng, bytes.size() + 1), number = bytes.find_first_of("0123456789", at);
        const std::size_t length = below(rng, one_of<std::size_t>(rng, { 2, 16, 256, bytes.size() + 1 }));
        const std::string token = awkward_token(rng);
        switch (below(rng, 7)) {
        case 0:
            bytes.resize(at);
            break;
        case 1:
            if (at < bytes.size()) bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(rng, 8)));
            break;
        case 2:
            bytes.erase(at, length);
            break;
        case 3:
            bytes.insert(at, bytes.substr(below(rng, bytes.size() + 1), length));
            break;
        case 4:
            bytes.insert(at, token);
            break;
        case 5:
            bytes.replace(at, token.size(), token);
            break;
        default: // a number
            if (number != std::string::npos)
                bytes.replace(number, bytes.find_first_not_of("0123456789.+-e", number) - number, token);
        }
        if (bytes.size() > largest) bytes.resize(largest);
    }
    return bytes;
}

} // namespace hard
