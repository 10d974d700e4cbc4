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

/// Numbers and words that parsers stumble over.
inline std::string awkward_token(Rng& rng)
{
    return one_of<const char*>(rng,
        { "0", "-1", "2147483647", "2147483648", "-2147483648", "1e308", "1e-308", "1e999", ".Nan", ".Inf", "-.Inf",
            "nan", "32767", "65536", "4294967296", "[", "]", "{", "}", "- ", ": ", "\"", "'", "!!binary |", "&a ", "*a",
            "%YAML:1.0", "---", "...", "!!opencv-matrix", "dt: d", "dt: \"3f\"", "rows: 0", "cols: 1000000", "data: [",
            "<?xml version=\"1.0\"?>", "#", "\t", "\n", "\n   ", "~", "\\" });
}

/// Replaces the number that begins at or after a random place.
inline void replace_number(std::string& bytes, Rng& rng)
{
    const char* digits = "0123456789.+-e";
    const std::size_t at = bytes.find_first_of("0123456789", below(rng, bytes.size()));
    if (at == std::string::npos) return;
    const std::size_t end = bytes.find_first_not_of(digits, at);
    bytes.replace(at, end == std::string::npos ? end : end - at, awkward_token(rng));
}

/// One random change of a file.
inline void mutate_once(std::string& bytes, Rng& rng)
{
    const std::size_t at = below(rng, bytes.size() + 1);
    const std::size_t length = below(rng, one_of<std::size_t>(rng, { 2, 16, 256, bytes.size() + 1 }));
    switch (below(rng, 9)) {
    case 0:
        bytes.resize(at);
        break;
    case 1:
        if (at < bytes.size()) bytes[at] = static_cast<char>(bytes[at] ^ (1 << below(rng, 8)));
        break;
    case 2:
        if (at < bytes.size()) bytes[at] = one_of<char>(rng, { '\0', '\x7F', '\x80', '\xFF', ' ', '\n' });
        break;
    case 3:
        bytes.erase(at, length);
        break;
    case 4:
        bytes.insert(at, bytes.substr(below(rng, bytes.size() + 1), length));
        break;
    case 5:
        bytes.insert(at, awkward_token(rng));
        break;
    case 6: { // a 4-byte number of a binary header
        const auto number = one_of<uint32_t>(
            rng, { 0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x7FC00000, 0x7F800000, 0x10000, 32767, 0x4E000000 });
        if (at + 4 <= bytes.size()) bytes.replace(at, 4, reinterpret_cast<const char*>(&number), 4);
        break;
    }
    default:
        replace_number(bytes, rng);
    }
    constexpr std::size_t largest = 1U << 20; // not the place to test large files
    if (bytes.size() > largest) bytes.resize(largest);
}

inline std::string mutated(std::string bytes, Rng& rng)
{
    const std::size_t changes = 1 + below(rng, one_of<std::size_t>(rng, { 1, 1, 3, 20 }));
    for (std::size_t i = 0; i < changes; ++i)
        mutate_once(bytes, rng);
    return bytes;
}

} // namespace hard
