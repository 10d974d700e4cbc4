#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <cstdint>
#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace vexo {

/// Asks for 2 MiB pages under a large block that nobody has written to yet. Row after row of a dozen images at once is
/// more 4 KiB pages than a processor remembers the addresses of; above all in a virtual machine, where looking one up
/// takes long. Only a hint: without it everything works the same.
inline void ask_for_large_pages(void* block, std::size_t bytes) noexcept
{
#if defined(__linux__)
    constexpr std::size_t page = 4096, large = 2 << 20;
    const std::size_t to_page = (page - reinterpret_cast<std::uintptr_t>(block) % page) % page;
    if (bytes >= large) ::madvise(static_cast<char*>(block) + to_page, (bytes - to_page) / page * page, MADV_HUGEPAGE);
#else
    static_cast<void>(block), static_cast<void>(bytes);
#endif
}

/// image.create(), on large pages.
inline void create_large(cv::Mat& image, cv::Size size, int type)
{
    if (image.size() == size && image.type() == type) return;
    image.create(size, type);
    ask_for_large_pages(image.data, image.total() * image.elemSize());
}

} // namespace vexo
