#include "host/files/hash.h"

#include <array>
#include <new>

#include <openssl/evp.h>

namespace vexo {

std::string sha256(const void* bytes, std::size_t size)
{
    std::array<unsigned char, 32> digest {};
    // Fails for want of memory alone.
    if (EVP_Digest(bytes, size, digest.data(), nullptr, EVP_sha256(), nullptr) != 1) throw std::bad_alloc();
    std::string text;
    for (const unsigned char byte : digest)
        for (const int nibble : { byte >> 4, byte & 15 })
            text += "0123456789abcdef"[nibble];
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
