#pragma once

#include "base/pictures/format.h"

#include <tiffio.h>

namespace vexo {
namespace picture_file {

/// A TIFF file in memory, read or made. What libtiff has to say of it is heard by nobody, and nothing of the process is
/// changed for it.
class TiffFile {
public:
    explicit TiffFile(Bytes source) noexcept; ///< to be read
    TiffFile() noexcept;                      ///< to be made
    ~TiffFile() { close(); }
    TiffFile(const TiffFile&) = delete;
    TiffFile& operator=(const TiffFile&) = delete;

    /// Null for what libtiff does not open, or without memory.
    TIFF* handle() const noexcept { return _tiff; }

    /// Whether libtiff found an error, also one after which it goes on.
    bool failed() const noexcept { return _failed; }

    /// Writes what is not written yet.
    void close() noexcept;

    std::vector<unsigned char> made;

private:
    Bytes _content() const noexcept { return _is_made ? Bytes { made.data(), made.size() } : _source; }
    void _open(const char* mode) noexcept;
    static tmsize_t _read(thandle_t handle, void* into, tmsize_t size) noexcept;
    static tmsize_t _write(thandle_t handle, void* from, tmsize_t size) noexcept;
    static toff_t _seek(thandle_t handle, toff_t offset, int whence) noexcept;
    static toff_t _size(thandle_t handle) noexcept;

    Bytes _source;
    bool _is_made = false, _failed = false;
    std::size_t _at = 0;
    TIFF* _tiff = nullptr;
};

} // namespace picture_file
} // namespace vexo
