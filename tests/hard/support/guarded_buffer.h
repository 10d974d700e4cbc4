#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>

namespace hard {

/// Memory whose last byte is followed by a page that cannot be touched. After revoke() none of it can: whoever
/// kept a pointer into it dies at its next use.
class GuardedBuffer {
public:
    explicit GuardedBuffer(std::size_t bytes)
        : _bytes(bytes)
        , _mapped((bytes + page - 1) / page * page + page)
        , _begin(mmap(nullptr, _mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
        if (_begin == MAP_FAILED) std::abort();
        mprotect(static_cast<uint8_t*>(_begin) + _mapped - page, page, PROT_NONE);
    }
    /// A copy of `bytes` bytes.
    GuardedBuffer(const void* from, std::size_t bytes)
        : GuardedBuffer(bytes)
    {
        if (bytes > 0) std::memcpy(data(), from, bytes);
    }
    ~GuardedBuffer() { munmap(_begin, _mapped); }
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    uint8_t* data() const { return static_cast<uint8_t*>(_begin) + _mapped - page - _bytes; }
    std::size_t size() const { return _bytes; }
    void revoke() { mprotect(_begin, _mapped, PROT_NONE); }

private:
    static constexpr std::size_t page = 4096;
    std::size_t _bytes, _mapped;
    void* _begin;
};

} // namespace hard
