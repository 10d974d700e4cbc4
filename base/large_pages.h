#pragma once

#include <opencv2/core.hpp>

#include <cstddef>
#include <initializer_list>
#include <limits>
#include <new>
#include <vector>

/// Memory on large pages, 2 MiB each: the first writing to it then costs one page fault where it would cost 512, and
/// row after row of a dozen images at once is no more pages than a processor remembers the addresses of; above all in
/// a virtual machine, where a fault and looking an address up take long. Large pages begin at multiples of their size,
/// so blocks do, too. Where there are none, everything works the same.
namespace vexo {

/// Asks for large pages under a block that nobody has written to yet; a hint, whoever made the block.
void ask_for_large_pages(void* block, std::size_t bytes) noexcept;

/// @return  nobody has written to it yet; at a multiple of 2 MiB when it is as large as that, else of 64 bytes.
///          Throws std::bad_alloc. To be given to free_large_block()
void* new_large_block(std::size_t bytes);
void free_large_block(void* block) noexcept;

/// One image for each of `types`, side by side in one block: an image that is smaller than a large page, or not a whole
/// number of them, is on large pages all the same. The block stays until the last of the images is released. Each
/// image is continuous; its pixels are undefined. Throws std::bad_alloc.
std::vector<cv::Mat> large_images(cv::Size size, const std::vector<int>& types);

/// image.create(), on large pages.
void create_large(cv::Mat& image, cv::Size size, int type);

/// An image, and the type that it is to have.
struct TypedImage {
    cv::Mat* image;
    int type;
};
/// The same for several images, side by side in one block.
void create_large(cv::Size size, std::initializer_list<TypedImage> images);

/// For vectors on large pages.
template <class T> struct LargePageAllocator {
    using value_type = T;
    LargePageAllocator() = default;
    template <class U> LargePageAllocator(const LargePageAllocator<U>&) noexcept { } // NOLINT: a conversion by design

    T* allocate(std::size_t count)
    {
        if (count > std::numeric_limits<std::size_t>::max() / 2 / sizeof(T)) throw std::bad_alloc();
        return static_cast<T*>(new_large_block(count * sizeof(T)));
    }
    void deallocate(T* block, std::size_t) noexcept { free_large_block(block); }
    template <class U> bool operator==(const LargePageAllocator<U>&) const noexcept { return true; }
    template <class U> bool operator!=(const LargePageAllocator<U>&) const noexcept { return false; }
};

} // namespace vexo
