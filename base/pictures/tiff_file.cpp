#include "base/pictures/tiff_file.h"

#include "base/boundary.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace vexo {
namespace picture_file {

namespace {

int close_nothing(thandle_t) noexcept
{
    return 0;
}

int say_nothing(TIFF*, void*, const char*, const char*, va_list) noexcept
{
    return 1; // heard: it goes to no handler of the process
}

int note(TIFF*, void* failed, const char*, const char*, va_list) noexcept
{
    *static_cast<bool*>(failed) = true;
    return 1;
}

} // namespace

TiffFile::TiffFile(Bytes source) noexcept
    : _source(source)
{
    _open("r");
}

TiffFile::TiffFile() noexcept
    : _is_made(true)
{
    _open("w");
}

void TiffFile::close() noexcept
{
    if (_tiff != nullptr) TIFFClose(_tiff);
    _tiff = nullptr;
}

void TiffFile::_open(const char* mode) noexcept
{
    constexpr tmsize_t largest_block = tmsize_t { 1 } << 30;
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (options == nullptr) return;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options, largest_block);
    TIFFOpenOptionsSetErrorHandlerExtR(options, note, &_failed);
    TIFFOpenOptionsSetWarningHandlerExtR(options, say_nothing, nullptr);
    _tiff = TIFFClientOpenExt("", mode, this, _read, _write, _seek, close_nothing, _size, nullptr, nullptr, options);
    TIFFOpenOptionsFree(options);
}

tmsize_t TiffFile::_read(thandle_t handle, void* into, tmsize_t size) noexcept
{
    auto& file = *static_cast<TiffFile*>(handle);
    const Bytes content = file._content();
    const std::size_t left = content.size - std::min(file._at, content.size);
    const std::size_t bytes = std::min(left, static_cast<std::size_t>(std::max<tmsize_t>(size, 0)));
    if (bytes > 0) std::memcpy(into, content.first + file._at, bytes);
    file._at += bytes;
    return static_cast<tmsize_t>(bytes);
}

tmsize_t TiffFile::_write(thandle_t handle, void* from, tmsize_t size) noexcept
{
    auto& file = *static_cast<TiffFile*>(handle);
    if (!file._is_made || size < 0) return 0;
    const std::size_t bytes = static_cast<std::size_t>(size), end = file._at + bytes;
    const bool fits = false_if_it_throws([&] {
        if (end > file.made.size()) file.made.resize(end);
    });
    if (!fits) return 0;
    if (bytes > 0) std::memcpy(file.made.data() + file._at, from, bytes);
    file._at = end;
    return size;
}

toff_t TiffFile::_seek(thandle_t handle, toff_t offset, int whence) noexcept
{
    auto& file = *static_cast<TiffFile*>(handle);
    const std::size_t from = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? file._at : file._content().size;
    file._at = from + static_cast<std::size_t>(offset);
    return file._at;
}

toff_t TiffFile::_size(thandle_t handle) noexcept
{
    return static_cast<TiffFile*>(handle)->_content().size;
}

} // namespace picture_file
} // namespace vexo
