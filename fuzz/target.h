#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

/// What every fuzz target consists of.

/// One input. @return whether it reached what the target is for: the parser took it, the kernel found something.
/// Aborts on anything that must not be.
bool fuzz_one(const std::string& bytes);

/// An input for which fuzz_one() is true. The target does not start without: a target that refuses everything would
/// find nothing for ever. Also the corpus' first seed.
std::string good_input();

inline void must(bool condition, const char* what)
{
    if (condition) return;
    std::fprintf(stderr, "must hold: %s\n", what);
    std::abort();
}

/// Bytes of the input, one after the other; zeros behind its end.
class Input {
public:
    explicit Input(const std::string& bytes)
        : _bytes(bytes)
    {
    }
    uint8_t next() { return _at < _bytes.size() ? static_cast<uint8_t>(_bytes[_at++]) : uint8_t { 0 }; }
    int in(int low, int high) { return low + next() % (high - low + 1); }

private:
    const std::string& _bytes;
    std::size_t _at = 0;
};
