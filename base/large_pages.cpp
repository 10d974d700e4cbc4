#include "base/large_pages.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace vexo {
namespace {

constexpr std::size_t small_page = 4096, large_page = 2 << 20, line = 64; // bytes; a line of the cache

std::size_t rounded_up(std::size_t bytes, std::size_t unit) noexcept
{
    return (bytes + unit - 1) / unit * unit;
}

/// What a matrix needs to give its block back. It makes none: matrices over blocks never grow.
class LargeBlocks final : public cv::MatAllocator {
public:
    /// Never destroyed: images may live longer than what ends with the program.
    static LargeBlocks& instance()
    {
        static LargeBlocks& blocks = *new LargeBlocks;
        return blocks;
    }
    cv::UMatData* make(std::size_t bytes)
    {
        auto data = std::make_unique<cv::UMatData>(this);
        data->data = data->origdata = static_cast<uchar*>(new_large_block(bytes));
        data->size = bytes;
        return data.release();
    }
    cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, std::size_t* step, cv::AccessFlag flags,
        cv::UMatUsageFlags usage) const override
    {
        return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
    }
    bool allocate(cv::UMatData* data, cv::AccessFlag, cv::UMatUsageFlags) const override { return data != nullptr; }
    void deallocate(cv::UMatData* data) const override
    {
        free_large_block(data->origdata);
        delete data;
    }
};

} // namespace

void ask_for_large_pages(void* block, std::size_t bytes) noexcept
{
#if defined(__linux__)
    const std::size_t to_page = (small_page - reinterpret_cast<std::uintptr_t>(block) % small_page) % small_page;
    if (bytes <= to_page) return;
    ::madvise(static_cast<char*>(block) + to_page, (bytes - to_page) / small_page * small_page, MADV_HUGEPAGE);
#else
    static_cast<void>(block), static_cast<void>(bytes);
#endif
}

void* new_large_block(std::size_t bytes)
{
    const bool large = bytes >= large_page;
    void* block = nullptr;
    if (::posix_memalign(&block, large ? large_page : line, std::max(bytes, line)) != 0) throw std::bad_alloc();
    if (large) ask_for_large_pages(block, bytes);
    return block;
}

void free_large_block(void* block) noexcept
{
    std::free(block);
}

std::vector<cv::Mat> large_images(cv::Size size, const std::vector<int>& types)
{
    const std::size_t pixels = static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height);
    std::vector<cv::Mat> images;
    if (types.empty()) return images;
    images.reserve(types.size());
    std::vector<std::size_t> begins;
    std::size_t end = 0;
    for (const int type : types) {
        begins.push_back(end);
        end += rounded_up(pixels * CV_ELEM_SIZE(type), line);
    }
    cv::UMatData* block = LargeBlocks::instance().make(end);
    for (std::size_t i = 0; i < types.size(); ++i) {
        cv::Mat& image = images.emplace_back(size, types[i], block->data + begins[i]);
        image.u = block;
        image.addref();
    }
    return images; // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): they count who uses the block
}

void create_large(cv::Mat& image, cv::Size size, int type)
{
    create_large(size, { { &image, type } });
}

void create_large(cv::Size size, std::initializer_list<TypedImage> images)
{
    const auto fits
        = [&](const TypedImage& wanted) { return wanted.image->size() == size && wanted.image->type() == wanted.type; };
    if (std::all_of(images.begin(), images.end(), fits)) return;
    std::vector<int> types;
    for (const TypedImage& wanted : images) {
        wanted.image->release(); // its memory can serve again
        types.push_back(wanted.type);
    }
    std::vector<cv::Mat> made = large_images(size, types);
    auto next = made.begin();
    for (const TypedImage& wanted : images)
        *wanted.image = *next++;
}

} // namespace vexo
